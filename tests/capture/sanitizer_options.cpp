// Sanitizer defaults for the media test programs; without a sanitizer these functions are
// never called.
//
// GLib and GStreamer are built without frame pointers, so the fast unwinder stops at
// g_malloc and every allocation from them looks alike. The slow unwinder gives full
// stacks, which lets lsan.supp name the one known leak precisely instead of hiding all of
// GLib's allocations.
extern "C" __attribute__((used)) const char *__asan_default_options() { return "fast_unwind_on_malloc=0"; }

extern "C" __attribute__((used)) const char *__lsan_default_suppressions() { return VELOCAST_LSAN_SUPPRESSIONS; }
