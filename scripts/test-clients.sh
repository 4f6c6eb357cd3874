#!/usr/bin/env bash
# Debian's PC/SC clients against libpcsclite.so.1 and the emulated rack,
# with no pcscd: pcsc_scan, opensc-tool, pyscard (a script and its
# CardMonitor), a script on Perl's Chipcard::PCSC, a program on Rust's pcsc
# crate and one on Java's javax.smartcardio each find the library through
# LD_LIBRARY_PATH (Java through sun.security.smartcardio.library), and the
# rack emulator
# (libftd2xx.so) beside it builds the racks described in TESSEL_SIM. Every
# check compares what a client printed with what the emulator was told: the
# reader names, the ATRs, the answer bytes and the card events.
#   bash scripts/test-clients.sh [build-dir]     (default build/native)
# The Rust and Java programs are built into build-dir/clients, once.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build/native}" && pwd)

# Debian's own cargo, rustc and JDK, never another toolchain on the PATH.
cargo=/usr/bin/cargo
rustc=/usr/bin/rustc
java_home=/usr/lib/jvm/default-java
crates=/usr/share/cargo/registry
for tool in pcsc_scan opensc-tool /usr/bin/python3 /usr/bin/perl $cargo $rustc $java_home/bin/java $java_home/bin/javac; do
  command -v "$tool" >/dev/null || { echo "test-clients: $tool is missing (scripts/install-deps.sh)"; exit 1; }
done
/usr/bin/perl -MChipcard::PCSC -e 1 2>/dev/null || { echo "test-clients: Perl's Chipcard::PCSC is missing (scripts/install-deps.sh)"; exit 1; }
ls -d "$crates"/pcsc-2.* >/dev/null 2>&1 || { echo "test-clients: no pcsc crate in $crates (scripts/install-deps.sh)"; exit 1; }
[ -f "$build/pcsc/libpcsclite.so.1" ] || { echo "test-clients: no $build/pcsc/libpcsclite.so.1"; exit 1; }

# The exports: every name that Debian's libpcsclite.so.1 gives its clients.
debian_library=$(ls /usr/lib/*/libpcsclite.so.1 2>/dev/null | head -n 1)
if [ -n "$debian_library" ]; then
  missing=$(comm -23 <(nm -D --defined-only "$debian_library" | awk '{print $3}' | sort) \
                     <(nm -D --defined-only "$build/pcsc/libpcsclite.so.1" | awk '{print $3}' | sort))
  if [ -n "$missing" ]; then echo "test-clients: exports missing:" $missing; exit 1; fi
  echo "test-clients: every export of $debian_library is there"
fi

# Our library and emulator first; a pcscd socket must not be what answers.
export LD_LIBRARY_PATH="$build/pcsc:$build/sim${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export PCSCLITE_CSOCK_NAME=/nonexistent/pcscd.comm
atr="3B 88 80 01 43 6C 69 65 6E 74 73 21 94"
slots=3
cards=2
export TESSEL_SIM="racks=2,slots=$slots,cards=$cards,echo=1,atr=$atr"

names=()
for rack in 1 2; do for slot in $(seq 1 $slots); do names+=("Tessel TR000$rack R$slot"); done; done

failures=0
fail() { echo "test-clients: FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "test-clients: ok: $*"; }

# --- The clients that watch card events run in the background while the
# others run, each with racks of its own; their results are read at the
# end. The library takes some seconds to bring a rack up, so the emulator's
# events come well after that: a card put into an empty slot (`event`),
# and a swap (`swap`): the card goes out of a slot of TR0001 and, a second
# later, a card with this ATR goes in (see TESSEL_SIM in README).
swap_atr="3B 8A 80 01 54 65 73 73 65 6C 53 77 61 70 06"
one_rack="Tessel TR0001 R1,Tessel TR0001 R2,Tessel TR0001 R3"
results="$build/clients/results"
rm -rf "$results"
mkdir -p "$results"
background=()
background_names=()
in_background() {  # name, command...: output to $results/name.out, status to name.status
  local name=$1; shift
  ( set +e; "$@" >"$results/$name.out" 2>&1; echo $? >"$results/$name.status" ) &
  background+=($!)
  background_names+=("$name")
}
trap 'for pid in "${background[@]}"; do kill "$pid" 2>/dev/null || true; done' EXIT

# Rust's pcsc crate, from Debian's packaged crates: built offline with a
# cargo home of its own in the build folder, so that nothing outside it is
# read or written but the crates. Copies that keep their times make cargo
# rebuild only after an edit.
rust_dir="$build/clients/rust-pcsc"
mkdir -p "$rust_dir/cargo-home"
cat >"$rust_dir/cargo-home/config.toml" <<EOF
[source.crates-io]
replace-with = "debian"
[source.debian]
directory = "$crates"
[net]
offline = true
EOF
cp -p scripts/clients/rust-pcsc/Cargo.toml "$rust_dir/"
cp -pR scripts/clients/rust-pcsc/src "$rust_dir/"
if (cd "$rust_dir" && CARGO_HOME="$rust_dir/cargo-home" RUSTC=$rustc RUSTDOC=/usr/bin/rustdoc \
      $cargo build --offline --quiet --target-dir "$rust_dir/target"); then
  TESSEL_SIM="racks=1,slots=3,cards=2,echo=1,atr=$atr,swap=12000@2" in_background rust-pcsc \
    timeout 120 "$rust_dir/target/debug/tessel-rust-pcsc-check" \
    "$one_rack" "$atr" "Tessel TR0001 R2" "$swap_atr" TR0001
else
  fail "rust-pcsc: the program does not build"
fi

# Java's javax.smartcardio from Debian's OpenJDK, given the library by its
# path. The card event in the empty slot R3 comes more than a minute after
# the program starts its endless wait for it, the swap in R1 after that.
# This is the longest client; the others run while it waits.
java_dir="$build/clients/java"
java_source=scripts/clients/java/SmartcardioCheck.java
mkdir -p "$java_dir"
if [ "$java_dir/SmartcardioCheck.class" -nt "$java_source" ] || $java_home/bin/javac -d "$java_dir" "$java_source"; then
  TESSEL_SIM="racks=1,slots=3,cards=2,echo=1,atr=$atr,event=75000,swap=79000@1" in_background java \
    timeout 120 $java_home/bin/java -Dsun.security.smartcardio.library="$build/pcsc/libpcsclite.so.1" \
    -cp "$java_dir" SmartcardioCheck "$one_rack" "$atr" "Tessel TR0001 R3" "Tessel TR0001 R1" "$swap_atr"
else
  fail "java: the program does not build"
fi

# pyscard's CardMonitor: the card there at the start, then the swap.
TESSEL_SIM="racks=1,slots=2,cards=1,atr=$atr,swap=12000@1" in_background pyscard-monitor \
  timeout 120 /usr/bin/python3 scripts/clients/pyscard_monitor.py "Tessel TR0001 R1" "$atr" "$swap_atr"

# --- pcsc_scan: ends through its own time-out; `timeout` is a safety net.
scan=$(timeout 120 pcsc_scan -n -t 2 2>&1 | tr -d '\r' || true)
for i in "${!names[@]}"; do
  block=$(printf '%s\n' "$scan" | awk -v head=" Reader $i: ${names[$i]}" \
    '$0 == head {on=1; next} /^ Reader [0-9]+:/ {on=0} on')
  slot=$(( i % slots + 1 ))
  if [ $slot -le $cards ]; then
    state="Card inserted"; want_atr="ATR: $atr"
  else
    state="Card removed"; want_atr=""
  fi
  if ! grep -q "Card state: $state" <<<"$block"; then fail "pcsc_scan: ${names[$i]} is not \"$state\""; continue; fi
  if [ -n "$want_atr" ] && ! grep -qx "  $want_atr" <<<"$block"; then
    fail "pcsc_scan: ${names[$i]} ATR is not $atr"; continue
  fi
  pass "pcsc_scan: ${names[$i]}: $state${want_atr:+, $want_atr}"
done

# --- opensc-tool: the reader list, one ATR, one APDU to an echo card.
listed=$(timeout 120 opensc-tool --list-readers 2>&1 || true)
for i in "${!names[@]}"; do
  slot=$(( i % slots + 1 ))
  card=$([ $slot -le $cards ] && echo Yes || echo No)
  if grep -Eq "^$i +$card +.*${names[$i]}\$" <<<"$listed"; then
    pass "opensc-tool --list-readers: $i ${names[$i]} ($card)"
  else
    fail "opensc-tool --list-readers: no \"$i $card ${names[$i]}\" in: $listed"
  fi
done
lower_atr=$(tr 'A-F ' 'a-f:' <<<"$atr")
# Standard output alone: the library may say on standard error where its
# log went, while the background clients hold the shared one.
got=$(timeout 120 opensc-tool --reader 4 --atr 2>/dev/null || true)
if [ "$got" = "$lower_atr" ]; then pass "opensc-tool --atr: $got"; else fail "opensc-tool --atr gave \"$got\", not $lower_atr"; fi
apdu="00 A4 04 00 02 3F 00"
got=$(timeout 120 opensc-tool --reader 1 --send-apdu "$(tr ' ' ':' <<<"$apdu")" 2>&1 || true)
# The echo card answers with the command itself: the last two bytes are
# the status word, the rest the data.
if grep -q "^Received (SW1=0x3F, SW2=0x00):" <<<"$got" && grep -q "^00 A4 04 00 02 " <<<"$got"; then
  pass "opensc-tool --send-apdu: the echo of $apdu"
else
  fail "opensc-tool --send-apdu gave: $got"
fi

# --- pyscard: readers, a connection, a transmit and a card event. The
# emulator puts a card into the first empty slot of TR0001 twenty seconds
# after it is loaded, while the script waits.
event_reader="Tessel TR0001 R$((cards + 1))"
if TESSEL_SIM="$TESSEL_SIM,event=20000" timeout 180 /usr/bin/python3 scripts/clients/pyscard_check.py \
     "$(IFS=,; echo "${names[*]}")" "$atr" "$event_reader"; then
  pass "pyscard"
else
  fail "pyscard"
fi

# --- Perl's Chipcard::PCSC: readers and their states, a connection to a
# slot of the second rack, its status and an exchange with its echo card.
empty=()
for i in "${!names[@]}"; do
  if [ $(( i % slots + 1 )) -gt $cards ]; then empty+=("${names[$i]}"); fi
done
if timeout 120 /usr/bin/perl scripts/clients/perl_check.pl \
     "$(IFS=,; echo "${names[*]}")" "$atr" "Tessel TR0002 R$cards" "$(IFS=,; echo "${empty[*]}")"; then
  pass "perl Chipcard::PCSC"
else
  fail "perl Chipcard::PCSC"
fi

# --- The background clients' results.
wait "${background[@]}" || true
for name in "${background_names[@]}"; do
  cat "$results/$name.out"
  if [ "$(cat "$results/$name.status" 2>/dev/null)" = 0 ]; then pass "$name"; else fail "$name"; fi
done
bash scripts/test-vcard.sh "$build" && pass "vicc in an emulated slot (scripts/test-vcard.sh)" || fail "vicc in an emulated slot (scripts/test-vcard.sh)"

if [ $failures -gt 0 ]; then echo "test-clients: $failures check(s) failed"; exit 1; fi
echo "test-clients: all checks passed"
