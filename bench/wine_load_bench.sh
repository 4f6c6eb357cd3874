#!/usr/bin/env bash
# The load benchmark's Windows form under Wine: cross-builds the Windows
# tree of each bitness (build/win32, build/win64, as scripts/test.sh
# configures them), boots a throw-away Wine prefix, runs
# windows_load_bench.exe there once per setting of the driver's latency
# timer, and writes build/bench/wine-report.md. scripts/bench.sh --wine
# calls it; it asserts nothing.
#
#   bench/wine_load_bench.sh [32] [64] [--quick]     (default: 32)
#
# BENCH_OUT_DIR (default build/bench), BENCH_JOBS (default: all processors)
# and BENCH_LATENCY_TIMERS (default "16 2") as for the native benchmark.
# Settings of the library (TESSEL_TRACE=off, ...) pass through Wine to it.
#
# A process's own processor time under Wine leaves out what the wineserver
# does on its behalf (thread and handle management, waits on kernel objects),
# so the report adds the wineserver's processor time over each run, read from
# /proc/<pid>/stat of this prefix's server, which this script starts itself.
# Every step is bounded by a time-out, and the prefix is always removed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

out=${BENCH_OUT_DIR:-build/bench}
jobs=${BENCH_JOBS:-$(nproc 2>/dev/null || echo 2)}
bits_list=()
quick=()
for arg in "$@"; do
  case "$arg" in
    32 | 64) bits_list+=("$arg") ;;
    --quick) quick=(--quick) ;;
    *) echo "usage: $0 [32] [64] [--quick]" >&2; exit 2 ;;
  esac
done
[ ${#bits_list[@]} -gt 0 ] || bits_list=(32)

for tool in wine wineboot wineserver timeout; do
  command -v "$tool" >/dev/null || { echo "bench: $tool not found (scripts/install-deps.sh installs Wine)" >&2; exit 1; }
done

# Ours, not Wine's own winscard; no Gecko or Mono; no debug channels; no
# display.
export WINEDLLOVERRIDES="winscard=n;mscoree,mshtml="
export WINEDEBUG=-all
unset DISPLAY WAYLAND_DISPLAY

prefix=
server=
cleanup() {
  [ -n "$prefix" ] || return 0
  # Only this prefix's server is stopped.
  WINEPREFIX="$prefix" timeout 30 wineserver -k >/dev/null 2>&1 || true
  if [ -n "$server" ]; then timeout 30 tail --pid="$server" -f /dev/null || kill "$server" 2>/dev/null || true; fi
  rm -rf "$prefix" "$prefix.log"
  prefix= server=
}
trap cleanup EXIT

ticks_per_second=$(getconf CLK_TCK)
# User + system time of a process, in clock ticks.
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }

mkdir -p "$out"
report="$out/wine-report.md"
{
  echo "# Waiting calls and thread scaling under Wine"
  echo
  echo "Run of $(date '+%Y-%m-%d %H:%M'), $(nproc) processors, load average $(cut -d' ' -f1 /proc/loadavg) at the start, $(wine --version)${quick:+, quick mode}."
  echo
} >"$report"

run_build() {  # bits
  local bits=$1 build="build/win$1" toolchain
  case "$bits" in 32) toolchain=toolchain-i686-mingw.cmake ;; *) toolchain=toolchain-x86_64-mingw.cmake ;; esac
  echo "=== $bits-bit Windows build ($build) ==="
  timeout 120 cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$toolchain" >/dev/null
  timeout 1800 cmake --build "$build" -j "$jobs" --target windows_load_bench

  mkdir -p build
  prefix=$(mktemp -d "$root/build/wine-prefix.XXXXXX")
  export WINEPREFIX="$prefix" WINEARCH="win$bits"
  echo "=== Wine prefix $prefix ($WINEARCH) ==="
  if ! timeout 300 wineboot --init >"$prefix.log" 2>&1; then
    echo "bench: wineboot failed or took more than 300 s:" >&2
    cat "$prefix.log" >&2
    return 1
  fi
  # The server that wineboot left is let go, and one of our own takes its
  # place for the whole run (persistent, in the foreground of this job), so
  # that its pid, and so its processor time, is known.
  timeout 60 wineserver -w || true
  wineserver -f -p &
  server=$!
  # Wine's own start would race it for the prefix: wait for its socket,
  # which it makes in the folder it works in.
  for _ in $(seq 100); do [ -S "/proc/$server/cwd/socket" ] && break; sleep 0.1; done
  [ -S "/proc/$server/cwd/socket" ] || { echo "bench: the wineserver of $prefix did not start" >&2; return 1; }
  mkdir -p "$prefix/drive_c/tessel"
  cp "$build/windows/winscard.dll" "$build/windows/FTD2XX.dll" "$build/windows/windows_load_bench.exe" \
    "$prefix/drive_c/tessel/"

  local ms
  for ms in ${BENCH_LATENCY_TIMERS:-16 2}; do
    echo "=== $bits-bit DLL, latency timer $ms ms ==="
    local before after start ms_wall status=0 output="$prefix/output.md"
    before=$(cpu_ticks "$server")
    start=$(date +%s%N)
    timeout --kill-after=10 300 wine 'C:\tessel\windows_load_bench.exe' --latency-timer "$ms" "${quick[@]}" \
      >"$output" || status=$?
    ms_wall=$((($(date +%s%N) - start) / 1000000))
    after=$(cpu_ticks "$server")
    if [ "$status" -ne 0 ]; then
      echo "bench: windows_load_bench.exe ended with status $status" >&2
      return 1
    fi
    {
      # One level down: the report holds a section per build and setting.
      tr -d '\r' <"$output" | sed -e 's/^## /### /' -e 's/^# /## /'
      awk -v ticks=$((after - before)) -v hz="$ticks_per_second" -v s="$ms_wall" 'BEGIN {
        s /= 1000
        ms = ticks * 1000 / hz
        printf "The wineserver over this run (%.1f s, the program from start to end, bring-up included): %.0f ms of processor time, %.1f%% of a core. It serves every process of the prefix: this program'"'"'s server calls (threads, handles, waits on kernel objects; the library'"'"'s own waits block on condition variables, which Wine keeps inside the process) and those of the Wine services that start with it.\n\n", s, ms, ms / (s * 10)
      }'
    } | tee -a "$report"
  done
  cleanup
}

for bits in "${bits_list[@]}"; do run_build "$bits"; done
echo "report: $report"
