#!/usr/bin/env bash
# The Windows stage: for each cross-built tree, checks the tables of its
# modules, then runs its test host under Wine against winscard.dll and the
# rack emulator built as FTD2XX.dll; the 32-bit build in a 32-bit prefix,
# the 64-bit build in a 64-bit one.
#
#   scripts/test-wine.sh [build dir...]     (default: build/win32 build/win64)
#
# Builds nothing: each build dir must already hold windows/winscard.dll,
# windows/FTD2XX.dll and windows/winscard_host.exe. Every run gets a Wine
# prefix of its own under build/, removed at the end (KEEP_WINE_PREFIX=1
# keeps it for a look at the log). Every step is bounded by a time-out, so
# a hang fails the stage instead of stopping CI.
set -euo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)
if [ $# -eq 0 ]; then set -- build/win32 build/win64; fi

for tool in wine wineboot wineserver timeout od; do
  command -v "$tool" >/dev/null || { echo "test-wine: $tool not found (scripts/install-deps.sh installs Wine)" >&2; exit 1; }
done

# Wine has a winscard of its own: ours is forced (n = native). No Gecko or
# Mono: without their DLLs Wine does not offer to install them. No debug
# channels, no display needed.
export WINEDLLOVERRIDES="winscard=n;mscoree,mshtml="
export WINEDEBUG=-all
unset DISPLAY WAYLAND_DISPLAY

# 32 or 64, from the machine field of a PE image's header.
pe_bits() {
  local header machine
  header=$(od -An -tu4 -j60 -N4 "$1" | tr -d ' ')
  machine=$(od -An -tx2 -j$((header + 4)) -N2 "$1" | tr -d ' ')
  case "$machine" in 014c) echo 32 ;; 8664) echo 64 ;; *) echo unknown ;; esac
}

failures=0
summaries=()
prefix=
cleanup() {
  [ -n "$prefix" ] || return 0
  # Only the server of this run's own prefix is stopped.
  WINEPREFIX="$prefix" timeout 30 wineserver -k >/dev/null 2>&1 || true
  if [ "${KEEP_WINE_PREFIX:-0}" = 1 ]; then
    echo "test-wine: prefix kept at $prefix"
  else
    rm -rf "$prefix"
  fi
  prefix=
}
trap cleanup EXIT

run_host() {  # label, host arguments...
  local label=$1
  shift
  echo "--- Wine: $label"
  rm -f "$log_file"
  local output="$prefix/host-output.txt" status=0
  timeout --kill-after=10 300 wine 'C:\tessel\winscard_host.exe' "$@" >"$output" 2>&1 || status=$?
  tr -d '\r' <"$output"
  local summary
  summary=$(tr -d '\r' <"$output" | grep -E '^[0-9]+ passed, [0-9]+ failed$' | tail -1 || true)
  if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
    echo "FAIL: $label did not finish within 300 s"
    failures=$((failures + 1))
  elif [ "$status" -ne 0 ] || [ -z "$summary" ]; then
    echo "FAIL: $label ended with status $status${summary:+ ($summary)}"
    failures=$((failures + 1))
  fi
  summaries+=("$label: ${summary:-no summary}")
}

# Checks of the log made from outside the prefix, after the host has ended.
log_check() {  # description, command...
  local what=$1
  shift
  if "$@"; then
    echo "PASS: $what"
  else
    echo "FAIL: $what"
    failures=$((failures + 1))
  fi
}

first_line_has_banner() { head -n 1 "$log_file" | grep -q 'QuorvaneTesselRack driver: 1\.2\.3'; }
no_bare_line_feed() {
  local line_feeds cr_lf
  line_feeds=$(LC_ALL=C tr -cd '\n' <"$log_file" | wc -c)
  cr_lf=$(LC_ALL=C grep -c $'\r$' "$log_file" || true)
  [ "$line_feeds" -gt 0 ] && [ "$line_feeds" -eq "$cr_lf" ]
}
# At process end the entry function does nothing (the system has ended the
# other threads, maybe inside FTD2XX.dll): no rack's link is closed by it.
links_left_at_exit() { [ "$(grep -c 'Disconnecting from card rack' "$log_file")" -eq 0 ]; }
log_not_elsewhere() { [ -z "$(find "$prefix/drive_c" -name QuorvaneDLL.log ! -path "$log_file")" ]; }

fast_link_on() {
  [ "$(grep -c 'Fast link: latency timer 2 ms' "$log_file")" -eq 2 ] &&
    [ "$(grep -c 'Fast link: woken by received bytes' "$log_file")" -eq 2 ]
}

# LoadLibrary of winscard.dll while a second thread loads DLLs: the entry
# function must not hold the loader lock up; and a second name of another
# file planted at the log's path is left alone, the log going to the
# process's own file (tests/wine/loader_lock_host.cpp).
run_loader_lock_host() {  # modules folder, bits
  local modules=$1 bits=$2
  if [ ! -f "$modules/loader_lock_host.exe" ]; then
    echo "FAIL: $modules/loader_lock_host.exe is missing"
    failures=$((failures + 1))
    return
  fi
  cp "$modules/loader_lock_host.exe" "$prefix/drive_c/tessel/"
  echo "--- Wine: $bits-bit loader lock host"
  rm -f "$log_file"
  local output="$prefix/loader-lock-output.txt" status=0
  timeout --kill-after=10 300 wine 'C:\tessel\loader_lock_host.exe' >"$output" 2>&1 || status=$?
  tr -d '\r' <"$output"
  local summary
  summary=$(tr -d '\r' <"$output" | grep -E '^[0-9]+ passed, [0-9]+ failed$' | tail -1 || true)
  if [ "$status" -ne 0 ] || [ -z "$summary" ]; then
    echo "FAIL: $bits-bit loader lock host ended with status $status${summary:+ ($summary)}"
    failures=$((failures + 1))
  fi
  summaries+=("$bits-bit loader lock host: ${summary:-no summary}")
}

run_build() {  # build dir
  local build=$1
  case "$build" in /*) ;; *) build="$root/$build" ;; esac
  local modules="$build/windows"
  if [ ! -f "$modules/winscard.dll" ]; then
    echo "FAIL: $modules/winscard.dll is missing (build it first, see docs/windows.md)"
    failures=$((failures + 1))
    summaries+=("$build: not built")
    return
  fi
  local bits
  bits=$(pe_bits "$modules/winscard.dll")

  echo
  echo "=== $bits-bit build: $build"
  echo "--- tables of the modules (objdump)"
  if ! bash "$root/scripts/check-dll-tables.sh" "$modules" "$bits"; then failures=$((failures + 1)); fi

  mkdir -p "$root/build"
  prefix=$(mktemp -d "$root/build/wine-prefix.XXXXXX")
  export WINEPREFIX="$prefix" WINEARCH=win$bits
  echo "--- Wine prefix $prefix ($WINEARCH)"
  wine --version
  if ! timeout 300 wineboot --init >"$prefix.boot.log" 2>&1; then
    echo "FAIL: wineboot failed or took more than 300 s:"
    cat "$prefix.boot.log"
    rm -f "$prefix.boot.log"
    failures=$((failures + 1))
    cleanup
    return
  fi
  rm -f "$prefix.boot.log"

  # One folder for the host and both DLLs: the loader finds FTD2XX.dll
  # beside winscard.dll, and the host loads both from its own folder.
  mkdir -p "$prefix/drive_c/tessel"
  cp "$modules/winscard.dll" "$modules/FTD2XX.dll" "$modules/winscard_host.exe" "$prefix/drive_c/tessel/"
  log_file="$prefix/drive_c/users/Public/Documents/QuorvaneDLL.log"

  run_host "$bits-bit host"
  log_check "the log is in the prefix's public documents folder" test -s "$log_file"
  if [ -s "$log_file" ]; then
    log_check "the log's first line is the banner" first_line_has_banner
    log_check "every line of the log ends in CR LF" no_bare_line_feed
    log_check "at process end the entry function left the links to the system" links_left_at_exit
    log_check "no log file anywhere else in the prefix" log_not_elsewhere
  fi

  # The same session on the fast link: the latency timer set and the receive
  # thread woken through FTD2XX.dll's functions found by name.
  TESSEL_FAST_LINK=2 run_host "$bits-bit host, fast link"
  log_check "the fast link wakes both racks' receive threads by their events" fast_link_on
  run_loader_lock_host "$modules" "$bits"
  cleanup
}

for build in "$@"; do run_build "$build"; done

echo
echo "--- Wine stage summary"
for line in "${summaries[@]}"; do echo "  $line"; done
if [ "$failures" -ne 0 ]; then
  echo "test-wine: $failures failure(s)"
  exit 1
fi
echo "test-wine: all passed"
