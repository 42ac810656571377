// What the sanitizers are told; without them nobody calls these.

extern "C" const char* __asan_default_options();
extern "C" const char* __lsan_default_suppressions();

// A refused allocation is a null pointer, as it is elsewhere.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

// libvorbisenc loses a setup for some channel counts. Only tests encode; the library and the command do not.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:vorbis_encode_setup_init";
}
