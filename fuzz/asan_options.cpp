// Linked into every fuzz binary and replay driver. The blob readers check every count
// against the bytes that remain before they allocate anything for it, so no input can
// make them ask for more than a few times its own size: a block above 24 MiB is a
// finding, and AddressSanitizer stops the run there (allocation-size-too-big) instead
// of mapping it or returning null. No input of the corpora or of a fuzzing run comes
// near the cap, while libFuzzer itself needs some 20 MiB at once when it starts; its own
// malloc limit stays above the cap (scripts/fuzz.sh). Options in ASAN_OPTIONS still
// override these. Without AddressSanitizer this is never called.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() { return "max_allocation_size_mb=24"; }
