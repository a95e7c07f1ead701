// Linked into every fuzz binary and replay driver. Blobs may carry huge counts for
// which the readers allocate arrays up front: such an allocation must fail and end in
// status 3, as it does with the real allocator, instead of aborting the run. Blocks
// above 24 MiB are refused: no input of the corpora or of a fuzzing run can back an
// array that large, while libFuzzer itself needs some 20 MiB at once when it starts.
// (A larger cap costs speed: every such block is mapped, and its shadow poisoned when
// it is freed.) libFuzzer's malloc limit is set above the cap (scripts/fuzz.sh), so it
// never fires. Options in ASAN_OPTIONS
// still override these. Without AddressSanitizer this is never called.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=24";
}
