#!/usr/bin/env bash
# Builds the libFuzzer configuration (clang, AddressSanitizer, UndefinedBehaviorSanitizer,
# coverage of the library) and runs fuzz targets one after another. See fuzz/README.md.
#
#   scripts/fuzz.sh [options] [target...|all]
#
#   -t SECONDS   run each target for this long (default 60)
#   -r RUNS      run each target for this many executions instead
#   -m           merge: afterwards minimise the target's corpus (fuzz/corpus/<target>)
#                together with what the run found, with -merge=1 on edge coverage,
#                and replace it; named seeds (a name that is not a 40-digit hash) stay
#   -M           merge only: no fuzzing run, just the merge of -m
#   -b DIR       build directory (default build/fuzz)
#   -j N         ninja jobs (default 2)
#   -n           no build: use the binaries already in the build directory
#   -- ARGS      further libFuzzer arguments, given to every target
#
# Targets: ocl_blob ocl_compare icl_blob volume_id log_config log_format (default: all).
# New inputs go to <build>/fuzz-work/<target>/corpus, crashes to .../artifacts; the
# committed corpus is only read (and, with -m, replaced by the merged one). Each run's
# log is <build>/fuzz-work/<target>/run.log; its final statistics are printed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

all_targets=(ocl_blob ocl_compare icl_blob volume_id log_config log_format)
seconds=60
runs=""
merge=0
build=build/fuzz
jobs=2
do_build=1
extra=()

merge_only=0
while getopts "t:r:mMb:j:nh" opt; do
  case $opt in
    t) seconds=$OPTARG ;;
    r) runs=$OPTARG ;;
    m) merge=1 ;;
    M) merge=1; merge_only=1 ;;
    b) build=$OPTARG ;;
    j) jobs=$OPTARG ;;
    n) do_build=0 ;;
    h) sed -n '2,24p' "$0"; exit 0 ;;
    *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
targets=()
while [ $# -gt 0 ]; do
  if [ "$1" = "--" ]; then shift; extra=("$@"); break; fi
  if [ "$1" = "all" ]; then targets+=("${all_targets[@]}"); else targets+=("$1"); fi
  shift
done
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")
for t in "${targets[@]}"; do
  case " ${all_targets[*]} " in *" $t "*) ;; *) echo "fuzz.sh: unknown target $t" >&2; exit 2 ;; esac
done

if [ $do_build = 1 ]; then
  bash "$root/scripts/install-deps.sh" --fuzz
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFSIC_BUILD_FUZZERS=ON -DFSIC_SANITIZE=ON \
    -DFSIC_BUILD_TESTS=OFF -DFSIC_BUILD_BENCH=OFF >/dev/null
  ninja -C "$build" -j "$jobs" fuzzers
fi

# A block above 24 MiB stops the binaries as a finding (fuzz/asan_options.cpp); libFuzzer's
# own malloc limit stays above that, so AddressSanitizer reports where it was asked for.
export ASAN_OPTIONS="${ASAN_OPTIONS:-max_allocation_size_mb=24:detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
limits=(-rss_limit_mb=2048 -malloc_limit_mb=128 -timeout=10 -max_len=4096 -print_final_stats=1)

for t in "${targets[@]}"; do
  bin="$build/fuzz/fuzz_$t"
  work="$build/fuzz-work/$t"
  mkdir -p "$work/corpus" "$work/artifacts"
  seeds=("$root/fuzz/corpus/$t")
  [ -d "$root/fuzz/regressions/$t" ] && seeds+=("$root/fuzz/regressions/$t")
  dict=()
  [ -f "$root/fuzz/dict/$t.dict" ] && dict=(-dict="$root/fuzz/dict/$t.dict")
  if [ -n "$runs" ]; then budget=(-runs="$runs"); else budget=(-max_total_time="$seconds"); fi

  if [ $merge_only = 0 ]; then
    echo "=== $t: ${budget[*]}"
    status=0
    "$bin" "${limits[@]}" "${dict[@]}" "${budget[@]}" -artifact_prefix="$work/artifacts/" \
      "${extra[@]}" "$work/corpus" "${seeds[@]}" >"$work/run.log" 2>&1 || status=$?
    # The last status line (cov, ft, corp) and the final statistics.
    grep -E '^#[0-9]+' "$work/run.log" | tail -n 1 || true
    grep -E '^stat::' "$work/run.log" || true
    if [ $status != 0 ]; then
      echo "fuzz.sh: $t stopped with status $status; see $work/run.log and $work/artifacts" >&2
      exit 1
    fi
  fi

  if [ $merge = 1 ]; then
    merged="$work/merged"
    rm -rf "$merged"
    mkdir -p "$merged"
    # Named seeds go first and stay; libFuzzer adds what else brings new edges. Hit
    # counts are left out (-use_counters=0), which keeps the committed corpus small; the
    # work directory keeps the full corpus for the next run.
    find "$root/fuzz/corpus/$t" -maxdepth 1 -type f -regextype posix-extended \
      ! -regex '.*/[0-9a-f]{40}' -exec cp {} "$merged/" \;
    status=0
    "$bin" "${limits[@]}" -use_counters=0 -merge=1 "$merged" "$root/fuzz/corpus/$t" \
      "$work/corpus" >"$work/merge.log" 2>&1 || status=$?
    if [ $status != 0 ]; then
      echo "fuzz.sh: merging $t failed; see $work/merge.log" >&2
      exit 1
    fi
    rm -rf "$root/fuzz/corpus/$t"
    mv "$merged" "$root/fuzz/corpus/$t"
    echo "merged corpus: $(ls "$root/fuzz/corpus/$t" | wc -l) files," \
      "$(du -sb "$root/fuzz/corpus/$t" | cut -f1) bytes"
  fi
done
