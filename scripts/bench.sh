#!/usr/bin/env bash
# The benchmark against the bus limit: builds natively, runs the emulator's
# pacing check and the library benchmark in real time, and writes
# build/bench/report.md with build/bench/exchanges.svg next to it.
#
# The library leaves the FTDI chip's latency timer as the device driver has
# it, so the benchmark runs twice in one invocation: with the driver's
# default of 16 ms and with 2 ms, a driver tuned for a card farm. The report
# sets the two side by side.
#
#   scripts/bench.sh            run and write the report (about 4 minutes)
#   scripts/bench.sh --quick    shorter windows, rougher figures (about 2 minutes)
#   scripts/bench.sh --publish  also copy the report into docs/performance.md
#                               (between its markers) and docs/exchanges.svg
#   scripts/bench.sh --load     only the waiting calls and the scaling of
#                               short exchanges from 1 to 64 threads, with
#                               their targets (about 70 s; not published)
#   scripts/bench.sh --connections
#                               only contexts and connections: context pairs
#                               per second, pcsc-lite's ThreadSafeConnect
#                               pattern and cold connects (about 10 s; not
#                               published)
#   scripts/bench.sh --farm     only the farm: 16 racks of 240 slots brought
#                               up at once, the first context and what it
#                               lists, a status-change pass over every
#                               reader and the idle cost (about 15 s; writes
#                               build/bench/farm-report.md; not published)
#   scripts/bench.sh --wine [32|64|both]
#                               the same for the Windows DLL under Wine
#                               (default 32-bit; about 80 s per build once
#                               built; writes build/bench/wine-report.md)
#
# BENCH_BUILD_DIR (default build/native), BENCH_OUT_DIR (default build/bench)
# and BENCH_JOBS (default: all processors) change where and how it builds;
# BENCH_LATENCY_TIMERS (default "16 2") the timer settings, in ms, to run.
# The figures are wall-clock: run it on an otherwise quiet machine.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${BENCH_BUILD_DIR:-build/native}
out=${BENCH_OUT_DIR:-build/bench}
jobs=${BENCH_JOBS:-$(nproc 2>/dev/null || echo 2)}
timers=()
for ms in ${BENCH_LATENCY_TIMERS:-16 2}; do timers+=(--latency-timer "$ms"); done
publish=no
quick=()
only=()
wine_bits=()
while [ $# -gt 0 ]; do
  case "$1" in
    --publish) publish=yes ;;
    --quick) quick=(--quick) ;;
    --load) only=(--load-only) ;;
    --connections) only=(--connections-only) ;;
    --farm) only=(--farm-only) ;;
    --wine)
      case "${2:-}" in
        32 | 64) wine_bits=("$2"); shift ;;
        both) wine_bits=(32 64); shift ;;
        *) wine_bits=(32) ;;
      esac ;;
    *) echo "usage: $0 [--quick] [--publish | --load | --connections | --farm | --wine [32|64|both]]" >&2; exit 2 ;;
  esac
  shift
done
if [ "$publish" = yes ] && { [ ${#only[@]} -gt 0 ] || [ ${#wine_bits[@]} -gt 0 ]; }; then
  echo "bench: --load, --connections, --farm and --wine make partial reports; they are not published" >&2
  exit 2
fi

bash scripts/install-deps.sh

if [ ${#wine_bits[@]} -gt 0 ]; then
  exec bash bench/wine_load_bench.sh "${wine_bits[@]}" "${quick[@]}"
fi

echo "=== build ($build) ==="
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$jobs" --target sim_pacing pcsc_bench

mkdir -p "$out"
echo
echo "=== emulator pacing ==="
"$build/bench/sim_pacing" | tee "$out/sim_pacing.txt"

echo
echo "=== library against the bus limit ==="
"$build/bench/pcsc_bench" --out "$out" "${timers[@]}" "${quick[@]}" "${only[@]}"

{
  echo
  echo "## Emulator pacing check"
  echo
  echo "The emulator's own byte rate and latency with wire pacing on (bench/sim_pacing):"
  echo
  echo '```'
  cat "$out/sim_pacing.txt"
  echo '```'
} >>"$out/report.md"
echo
if [ ${#only[@]} -gt 0 ]; then echo "report: $out/report.md"; else echo "report: $out/report.md, plot: $out/exchanges.svg"; fi

if [ "$publish" = yes ]; then
  doc=docs/performance.md
  begin='<!-- latest numbers: begin -->'
  end='<!-- latest numbers: end -->'
  if ! grep -qF "$begin" "$doc" || ! grep -qF "$end" "$doc"; then
    echo "bench: $doc lacks the markers; not published" >&2
    exit 1
  fi
  # The report's own title is left out: the document has its own.
  awk -v begin="$begin" -v end="$end" -v report="$out/report.md" '
    $0 == begin { print; print ""; first = 1
                  while ((getline line < report) > 0) {
                    if (first && line ~ /^# /) { first = 0; continue }
                    first = 0
                    sub(/^## /, "### ", line)
                    print line
                  }
                  print ""; skipping = 1; next }
    $0 == end   { skipping = 0 }
    !skipping   { print }
  ' "$doc" >"$doc.new"
  mv "$doc.new" "$doc"
  cp "$out/exchanges.svg" docs/exchanges.svg
  echo "published to $doc and docs/exchanges.svg"
fi
