// What GLib itself never gives back is no finding. Its innards have no frame pointers, so the
// sanitizer has to look at them the slow way to see whose it is.

extern "C" const char* __asan_default_options();
extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:call_init\n"; }
