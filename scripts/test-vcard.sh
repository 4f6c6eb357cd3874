#!/usr/bin/env bash
# A real card program in an emulated slot: Debian's vicc (vsmartcard-vpicc)
# with its ISO 7816 card type, against libpcsclite.so.1 and the emulator
# (libftd2xx.so) beside it, with no pcscd.
#  1. pyscard (scripts/clients/vcard_check.py): the slot listens, vicc
#     connects to it; insertion seen by a status-change wait, SELECT of the
#     master file, VERIFY with the right PIN and a wrong one, GET CHALLENGE
#     twice, removal seen when vicc ends.
#  2. opensc-tool: vicc listens (-R) and the emulator connects to it; the
#     ATR, SELECT, VERIFY right and wrong, and two GET CHALLENGEs that differ.
# Debian's vicc 3.3 needs its modules' folder on PYTHONPATH and the module
# name Crypto to mean pycryptodome's Cryptodome; both are done here, for
# vicc's process only.
#   bash scripts/test-vcard.sh [build-dir]     (default build/native)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build/native}" && pwd)

for tool in vicc opensc-tool; do
  command -v "$tool" >/dev/null || { echo "test-vcard: $tool is missing (scripts/install-deps.sh)"; exit 1; }
done
[ -f "$build/pcsc/libpcsclite.so.1" ] || { echo "test-vcard: no $build/pcsc/libpcsclite.so.1"; exit 1; }
modules=$(dpkg -L python3-virtualsmartcard 2>/dev/null | grep '/virtualsmartcard/VirtualSmartcard.py$' | head -n 1)
[ -n "$modules" ] || { echo "test-vcard: vicc's modules (python3-virtualsmartcard) are missing"; exit 1; }
vicc_path=$(dirname "$(dirname "$modules")")

work=$(mktemp -d)
vicc_pid=
stop_vicc() {
  if [ -n "$vicc_pid" ]; then
    kill "$vicc_pid" 2>/dev/null || true
    wait "$vicc_pid" 2>/dev/null || true
    vicc_pid=
  fi
}
check_pid=
cleanup() {
  stop_vicc
  if [ -n "$check_pid" ]; then kill "$check_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

mkdir -p "$work/shim/Crypto"
cat >"$work/shim/Crypto/__init__.py" <<'EOF'
# Makes `import Crypto...` load pycryptodome's Cryptodome, for vicc only.
import sys
import Cryptodome
sys.modules[__name__] = Cryptodome
EOF
start_vicc() {  # start_vicc ARGS...: vicc in the background, its log in $work/vicc.log
  PYTHONPATH="$work/shim:$vicc_path" /usr/bin/vicc --type iso7816 -v -v -v "$@" >>"$work/vicc.log" 2>&1 &
  vicc_pid=$!
}
free_port() { /usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
# Waits until something listens on TCP port $1, without connecting to it
# (a connection would be a card to the emulator): the kernel's socket list,
# state 0A is LISTEN.
wait_listening() {
  local hex
  hex=$(printf '%04X' "$1")
  for _ in $(seq 1 100); do
    awk -v port="$hex" '$4 == "0A" && substr($2, index($2, ":") + 1) == port {found = 1} END {exit !found}' \
      /proc/net/tcp && return 0
    sleep 0.1
  done
  return 1
}

export LD_LIBRARY_PATH="$build/pcsc:$build/sim${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export PCSCLITE_CSOCK_NAME=/nonexistent/pcscd.comm
# The ATR of vicc's ISO 7816 card.
atr="3B 95 13 81 01 80 73 FF 01 00 0B"

failures=0
fail() { echo "test-vcard: FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "test-vcard: ok: $*"; }

# --- 1. pyscard; the emulated slot listens and vicc connects.
port=$(free_port)
reader="Tessel TR0001 R3"
TESSEL_SIM="slots=4,cards=2,vcard=3@$port" timeout 300 /usr/bin/python3 scripts/clients/vcard_check.py \
  "$reader" "$atr" "$work/listening" "$work/end" &
check_pid=$!
for _ in $(seq 1 600); do [ -e "$work/listening" ] || ! kill -0 $check_pid 2>/dev/null && break; sleep 0.1; done
if [ -e "$work/listening" ] && wait_listening "$port"; then
  start_vicc --port "$port"
  for _ in $(seq 1 1200); do [ -e "$work/end" ] || ! kill -0 $check_pid 2>/dev/null && break; sleep 0.1; done
  stop_vicc
fi
if wait $check_pid; then pass "pyscard session with vicc on $reader"; else fail "pyscard session with vicc"; fi

# --- 2. opensc-tool; vicc listens and the emulated slot connects to it,
# anew for each opensc-tool process, to the one card that keeps its state.
port=$(free_port)
start_vicc --reversed --port "$port"
if ! wait_listening "$port"; then
  fail "vicc -R does not listen on $port"
else
  export TESSEL_SIM="slots=4,cards=2,vcard=4@connect:$port"
  lower_atr=$(tr 'A-F ' 'a-f:' <<<"$atr")
  got=$(timeout 120 opensc-tool --reader 3 --atr 2>&1 || true)
  if [ "$got" = "$lower_atr" ]; then pass "opensc-tool --atr: $got"; else fail "opensc-tool --atr gave \"$got\", not $lower_atr"; fi

  got=$(timeout 120 opensc-tool --reader 3 -s 00:A4:00:0C:02:3F:00 -s 00:20:00:01:04:31:32:33:34 \
          -s 00:20:00:01:04:39:39:39:39 -s 00:20:00:01:04:31:32:33:34 2>&1 || true)
  sws=$(grep '^Received (SW1=' <<<"$got" | sed 's/^Received (SW1=\(0x..\), SW2=\(0x..\)).*/\1 \2/' | tr '\n' ' ')
  if [[ "$sws" =~ ^0x90\ 0x00\ 0x90\ 0x00\ 0x63\ 0x..\ 0x90\ 0x00\ $ ]]; then
    pass "opensc-tool: SELECT MF, VERIFY 1234, VERIFY 9999, VERIFY 1234: $sws"
  else
    fail "opensc-tool SELECT and VERIFY gave \"$sws\" in: $got"
  fi

  got=$(timeout 120 opensc-tool --reader 3 -s 00:84:00:00:08 -s 00:84:00:00:08 2>&1 || true)
  challenges=$(grep -A1 '^Received (SW1=0x90, SW2=0x00)' <<<"$got" | grep -v '^Received\|^--' | cut -c1-24)
  count=$(grep -c . <<<"$challenges" || true)
  if [ "$count" -eq 2 ] && [ "$(sed -n 1p <<<"$challenges")" != "$(sed -n 2p <<<"$challenges")" ]; then
    pass "opensc-tool: two GET CHALLENGEs that differ: $(tr '\n' '/' <<<"$challenges")"
  else
    fail "opensc-tool GET CHALLENGE gave: $got"
  fi
fi
stop_vicc

if [ $failures -gt 0 ]; then
  echo "test-vcard: $failures check(s) failed; vicc's log:"
  sed 's/^/  /' "$work/vicc.log" | tail -n 40
  exit 1
fi
echo "test-vcard: all checks passed"
