// What the thread sanitizer must know about test programs.
#if defined(__SANITIZE_THREAD__)

// The distribution's libraries are not built for the sanitizer, which sees the calls that it intercepts in them, but
// not their locks: neither gRPC's own nor absl::Mutex, which guards the topic table (clang's thread-safety check
// watches that one).
extern "C" const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1"; }
extern "C" const char* __tsan_default_suppressions() {
  return "race:libgrpc_unsecure.so\n"
         "race:libgpr.so\n"
         "race:libupb.so\n"
         "race:libabsl_\n"
         "race:apis::RpcPubSub::OnSignalSubscribeMessage\n";
}

#endif
