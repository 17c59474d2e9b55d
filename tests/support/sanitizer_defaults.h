// Sanitizer defaults for the test programs. Include from exactly one file per program (its
// main); without a sanitizer these functions are never called.
//
// GLib and GStreamer are built without frame pointers, so the fast unwinder stops at
// g_malloc and every allocation from them looks alike. The slow unwinder gives full
// stacks, which lets tests/lsan.supp name the one known leak precisely instead of hiding
// all of GLib's allocations.
#pragma once

extern "C" __attribute__((used)) const char *__asan_default_options() { return "fast_unwind_on_malloc=0"; }

extern "C" __attribute__((used)) const char *__lsan_default_suppressions() { return VELOCAST_LSAN_SUPPRESSIONS; }
