#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and UBSan on the
# product code too) and runs each for a bounded time on a copy of its seed
# corpus from fuzz/corpus/. Fails on any crash, leak, time-out or
# out-of-memory. One summary line per target.
#
#   FUZZ_SECONDS   time per target (default 60)
#   FUZZ_TARGETS   targets to run (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build="$root/build/fuzz"
seconds=${FUZZ_SECONDS:-60}
targets=${FUZZ_TARGETS:-"receive_path_fuzz atr_walk_fuzz"}
jobs=$(nproc 2>/dev/null || echo 2)
[ "$jobs" -gt 2 ] && jobs=2

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTESSEL_FUZZ=ON -DTESSEL_TESTS=OFF -DTESSEL_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j "$jobs" --target $targets

failed=0
summaries=()
for target in $targets; do
  work="$build/run/$target"
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  cp "$root/fuzz/corpus/$target/"* "$work/corpus/"
  seeds=$(ls "$work/corpus" | wc -l)

  set +e
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$build/fuzz/$target" "$work/corpus" \
      -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
      -artifact_prefix="$work/artifacts/" -print_final_stats=1 >"$work/log" 2>&1
  status=$?
  set -e

  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/log" | grep -o '[0-9]*$' || true)
  cov=$(grep -E '^#[0-9]+' "$work/log" | tail -1 | grep -o 'cov: [0-9]*' | grep -o '[0-9]*' || true)
  corpus=$(ls "$work/corpus" | wc -l)
  artifacts=$(ls "$work/artifacts" | wc -l)
  if [ "$status" -eq 0 ] && [ "$artifacts" -eq 0 ]; then
    result=passed
  else
    result="FAILED (exit $status, $artifacts artifact(s) in $work/artifacts, log $work/log)"
    failed=1
    # The report itself: the sanitizer's or libFuzzer's own lines.
    grep -E -A30 '==ERROR|runtime error|ALARM|out-of-memory|deadly signal' "$work/log" | head -60 || true
  fi
  summaries+=("fuzz $target: ${runs:-?} runs in ${seconds}s, coverage ${cov:-?}, corpus $seeds -> $corpus, $result")
done

printf '%s\n' "${summaries[@]}"
exit "$failed"
