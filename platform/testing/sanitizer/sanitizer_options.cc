// The sanitizers' options for the distribution's libraries, which are not built for them. Linked into every program of
// a sanitizer build, as an object, because the linker takes nothing from an archive for these names. The environment's
// options still win. Programs that use GStreamer add device/base/sanitizer_options.cc.

// NOLINTBEGIN(bugprone-reserved-identifier): the sanitizers' own names

// Without seeing a library's locks the sanitizer can't judge the calls that it intercepts there.
// Signals: the tool's interrupt handler allocates and locks, which is sound on a thread that only waits for signals.
extern "C" const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1 report_signal_unsafe=0"; }

extern "C" const char* __tsan_default_suppressions() {
  return
      // gRPC's threads and ours hand each other memory under gRPC's own locks. Our code never runs below its frames,
      // except for the function that writes its log lines.
      "race:libgrpc_unsecure.so\n"
      "race:libgrpc++_unsecure.so\n"
      "race:libgpr.so\n"
      "race:libupb.so\n";
}

extern "C" const char* __lsan_default_suppressions() {
  return
      // The resolver loses ten bytes each time that gRPC asks it for "localhost".
      "leak:libcares.so\n"
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
      // A wait at a socket that is given up: at times GIO 2.74 then loses its source, 120 bytes. Seen with an HTTP
      // server that never answers.
      "leak:g_cancellable_source_new\n"
      // mp4mux 1.22 forgets 4 KiB per track when it turns a fragmented file into a plain one.
      "leak:libgstisomp4.so\n";
}
// NOLINTEND(bugprone-reserved-identifier)
