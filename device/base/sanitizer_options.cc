// What sanitizer builds must know of the libraries from the distribution. Linked into programs as an object, because
// the linker takes nothing from an archive for these names. The environment's options still win.

#ifdef __SANITIZE_ADDRESS__

// Those libraries keep no frame pointers; without this a leak's stack ends in g_malloc and no line below can match.
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

extern "C" const char* __lsan_default_suppressions() {
  return
      // GLib's table of quarks is copied when it grows, and the old one is kept for readers without a lock. The first
      // ones are made by library constructors.
      "leak:g_intern_string\n"
      "leak:g_intern_static_string\n"
      "leak:g_quark_from_\n"
      "leak:call_init\n"
      // The text overlay reads the system's font configuration, which fontconfig never frees entirely.
      "leak:libfontconfig.so\n"
      // The HTTP session that souphttpsrc shares is freed with its pipeline's contexts and leaves 32 bytes.
      "leak:gst_structure_free\n"
      // mp4mux 1.22 forgets 4 KiB per track when it turns a fragmented file into a plain one.
      "leak:libgstisomp4.so\n";
}

#endif

#ifdef __SANITIZE_THREAD__

// GLib and GStreamer lock with futexes of their own, which the sanitizer doesn't see: calls that they make into the C
// library can't be judged. HandOver() tells of the order between our code on their threads and on ours.
extern "C" const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1"; }

#endif
