// The address sanitizer's options in programs that use GStreamer, beyond those of every program, which stand in
// platform/testing/sanitizer/. Not among those: they make each allocation slow, and the other programs load no library
// that needs them.
#ifdef __SANITIZE_ADDRESS__

// GLib and GStreamer keep no frame pointers; without this a leak's stack ends in g_malloc and no suppression matches.
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

#endif
