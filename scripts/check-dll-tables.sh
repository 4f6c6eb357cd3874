#!/usr/bin/env bash
# Checks the tables of a Windows build, 32-bit or 64-bit, with the cross
# binutils' objdump, so that a wrong machine type, a wrong ordinal, a
# decorated name, a missing DATA record, an import of FTD2XX.dll in the
# wrong form or a run-time DLL that slipped into the imports fails the run
# loudly.
#
#   scripts/check-dll-tables.sh <folder with winscard.dll, FTD2XX.dll and winscard_host.exe> [32|64]
#
# winscard.dll: machine type x86 (32) or x86-64 (64), module name
# WinScard.dll, exactly the 81 exports at their ordinals (the start-up
# functions as _KickOff@0 and _CloseConnections@0 in the 32-bit build,
# KickOff and CloseConnections in the 64-bit one; the 77 names of the
# system's winscard.dll among them), the three PCI records in
# a data section and every function in the code section; imports from
# system DLLs and FTD2XX.dll only, the latter exactly the ten D2XX functions
# it uses: by ordinal only in the 32-bit build, by name only in the 64-bit
# one.
# FTD2XX.dll (the emulator): the D2XX functions at their ordinals, system
# imports only. winscard_host.exe and tools/rackscan.exe: the same machine
# type, system imports only.
set -euo pipefail

dir=${1:?usage: check-dll-tables.sh <folder> [32|64]}
bits=${2:-32}
case "$bits" in
  32) objdump=${OBJDUMP:-i686-w64-mingw32-objdump} format=pei-i386 magic='(PE32)' machine="32-bit x86"
      kick_off=_KickOff@0 close_connections=_CloseConnections@0 ;;
  64) objdump=${OBJDUMP:-x86_64-w64-mingw32-objdump} format=pei-x86-64 magic='(PE32+)' machine="64-bit x86-64"
      kick_off=KickOff close_connections=CloseConnections ;;
  *) echo "check-dll-tables: bits must be 32 or 64, not '$bits'" >&2; exit 2 ;;
esac
command -v "$objdump" >/dev/null || { echo "check-dll-tables: $objdump not found" >&2; exit 1; }

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "PASS: $*"; }

# The DLLs a module may import: parts of every Windows installation.
system_dlls="kernel32.dll msvcrt.dll ole32.dll shell32.dll winmm.dll user32.dll advapi32.dll"

# --- objdump readers -----------------------------------------------------------
# All of them read the text objdump -p and -h print (binutils 2.40 layout).

image_base() { awk '$1 == "ImageBase" { print $2 }' "$1"; }

# "ordinal rva" for every export address table entry.
export_rvas() {
  awk '/^Export Address Table/ { on = 1; next }
       on && /^$/ { exit }
       on && /Export RVA/ { line = $0; sub(/.*\+base\[ */, "", line); split(line, f, /[] ]+/); print f[1], f[2] }' "$1"
}

# "ordinal name" for every named export.
export_names() {
  awk '/^Ordinal Base/ { base = $3 }
       /^\[Ordinal\/Name Pointer\] Table/ { on = 1; next }
       on && /^$/ { exit }
       on { line = $0; sub(/^[ \t]*\[ */, "", line); split(line, f, /[] ]+/); print f[1] + base, f[2] }' "$1"
}

export_module_name() {
  awk '/^The Export Tables/ { on = 1 } on && $1 == "Name" { print $3; exit }' "$1"
}

# "dll<TAB>ordinal<TAB>name" for every import; name is <none> for an import
# by ordinal.
imports() {
  awk -v OFS='\t' '/^[ \t]*DLL Name:/ { dll = $3; on = 1; next }
       on && /^[ \t]*vma:/ { next }
       on && /^[ \t]*$/ { on = 0; next }
       on && NF >= 3 { print dll, $2, $3 }' "$1"
}

# "name vma size" for every section.
sections() { awk '$1 ~ /^[0-9]+$/ && NF >= 7 { print $2, $4, $3 }' "$1"; }

section_of_rva() {  # table_file image_base rva -> section name
  local table=$1 base=$((16#$2)) rva=$((16#$3)) name vma size
  while read -r name vma size; do
    local start=$((16#$vma - base)) length=$((16#$size))
    if [ "$rva" -ge "$start" ] && [ "$rva" -lt $((start + length)) ]; then echo "$name"; return; fi
  done <"$table"
  echo "?"
}

is_system_dll() {
  local lower=${1,,} d
  for d in $system_dlls; do [ "$lower" = "$d" ] && return 0; done
  return 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

read_module() {  # file -> $work/<tag>.p and $work/<tag>.h
  local file=$1 tag=$2
  if [ ! -f "$file" ]; then fail "$file is missing"; return 1; fi
  "$objdump" -p "$file" >"$work/$tag.p"
  "$objdump" -h "$file" >"$work/$tag.h"
  sections "$work/$tag.h" >"$work/$tag.sections"
  return 0
}

check_machine() {  # tag label want_dll
  local tag=$1 label=$2 want_dll=$3
  if grep -q "file format $format\$" "$work/$tag.p" && grep -qF "$magic" "$work/$tag.p"; then
    pass "$label is a $machine PE image"
  else
    fail "$label is not a $machine PE image"
  fi
  if [ "$want_dll" = yes ]; then
    grep -qx $'\tDLL' "$work/$tag.p" && pass "$label is a DLL" || fail "$label is not marked as a DLL"
  fi
}

check_system_imports_only() {  # tag label [allowed extra dll]
  local tag=$1 label=$2 extra=${3:-} bad=""
  local dll
  for dll in $(imports "$work/$tag.p" | cut -f1 | sort -fu); do
    if is_system_dll "$dll"; then continue; fi
    if [ -n "$extra" ] && [ "${dll,,}" = "${extra,,}" ]; then continue; fi
    bad="$bad $dll"
  done
  if [ -z "$bad" ]; then
    pass "$label imports only from$( [ -n "$extra" ] && echo " $extra and") system DLLs: $(imports "$work/$tag.p" | cut -f1 | sort -fu | tr '\n' ' ')"
  else
    fail "$label imports from DLLs that a plain Windows installation does not have:$bad"
  fi
}

# --- winscard.dll ----------------------------------------------------------------

expected_exports="1 SCardGetStatusChangeW code
2 $close_connections code
3 $kick_off code
4 SCardBeginTransaction code
5 SCardCancel code
6 SCardConnectA code
7 SCardConnectW code
8 SCardControl code
9 SCardDisconnect code
10 SCardEndTransaction code
11 SCardEstablishContext code
12 SCardFreeMemory code
13 SCardGetAttrib code
14 SCardGetStatusChangeA code
15 SCardIsValidContext code
16 SCardListReadersA code
17 SCardListReadersW code
18 SCardReconnect code
19 SCardReleaseContext code
20 SCardReset code
21 SCardStatusA code
22 SCardStatusW code
23 SCardTransmit code
24 g_rgSCardRawPci data
25 g_rgSCardT0Pci data
26 g_rgSCardT1Pci data
27 ClassInstall32 code
28 SCardAccessNewReaderEvent code
29 SCardAccessStartedEvent code
30 SCardAddReaderToGroupA code
31 SCardAddReaderToGroupW code
32 SCardAudit code
33 SCardDlgExtendedError code
34 SCardForgetCardTypeA code
35 SCardForgetCardTypeW code
36 SCardForgetReaderA code
37 SCardForgetReaderGroupA code
38 SCardForgetReaderGroupW code
39 SCardForgetReaderW code
40 SCardGetCardTypeProviderNameA code
41 SCardGetCardTypeProviderNameW code
42 SCardGetDeviceTypeIdA code
43 SCardGetDeviceTypeIdW code
44 SCardGetProviderIdA code
45 SCardGetProviderIdW code
46 SCardGetReaderDeviceInstanceIdA code
47 SCardGetReaderDeviceInstanceIdW code
48 SCardGetReaderIconA code
49 SCardGetReaderIconW code
50 SCardGetTransmitCount code
51 SCardIntroduceCardTypeA code
52 SCardIntroduceCardTypeW code
53 SCardIntroduceReaderA code
54 SCardIntroduceReaderGroupA code
55 SCardIntroduceReaderGroupW code
56 SCardIntroduceReaderW code
57 SCardListCardsA code
58 SCardListCardsW code
59 SCardListInterfacesA code
60 SCardListInterfacesW code
61 SCardListReaderGroupsA code
62 SCardListReaderGroupsW code
63 SCardListReadersWithDeviceInstanceIdA code
64 SCardListReadersWithDeviceInstanceIdW code
65 SCardLocateCardsA code
66 SCardLocateCardsByATRA code
67 SCardLocateCardsByATRW code
68 SCardLocateCardsW code
69 SCardReadCacheA code
70 SCardReadCacheW code
71 SCardReleaseAllEvents code
72 SCardReleaseNewReaderEvent code
73 SCardReleaseStartedEvent code
74 SCardRemoveReaderFromGroupA code
75 SCardRemoveReaderFromGroupW code
76 SCardSetAttrib code
77 SCardSetCardTypeProviderNameA code
78 SCardSetCardTypeProviderNameW code
79 SCardState code
80 SCardWriteCacheA code
81 SCardWriteCacheW code"
export_count=$(echo "$expected_exports" | wc -l)

echo "--- winscard.dll"
if read_module "$dir/winscard.dll" ws; then
  check_machine ws winscard.dll yes

  name=$(export_module_name "$work/ws.p")
  [ "$name" = "WinScard.dll" ] && pass "module name is WinScard.dll" || fail "module name is '$name', not WinScard.dll"

  export_names "$work/ws.p" | sort -n >"$work/ws.names"
  export_rvas "$work/ws.p" | sort -n >"$work/ws.rvas"
  echo "$expected_exports" | awk '{ print $1, $2 }' | sort -n >"$work/ws.expected"
  if diff -u "$work/ws.expected" "$work/ws.names" >"$work/ws.diff"; then
    pass "exports: exactly the $export_count names at their ordinals"
  else
    fail "exports differ from the interface (- expected, + built):"
    sed -n '3,$p' "$work/ws.diff"
  fi
  rva_count=$(wc -l <"$work/ws.rvas")
  [ "$rva_count" -eq "$export_count" ] && pass "export address table has $export_count entries, none without a name" \
    || fail "export address table has $rva_count entries, not $export_count"

  # Every function and record of the system's winscard.dll, as mingw-w64's
  # x86_64 import library lists them (the 32-bit one lacks a few), must be
  # exported by name, so that no host that binds one of them finds a gap.
  implib=${WINSCARD_IMPLIB:-/usr/x86_64-w64-mingw32/lib/libwinscard.a}
  nm=${NM:-x86_64-w64-mingw32-nm}
  if [ -f "$implib" ] && command -v "$nm" >/dev/null; then
    "$nm" "$implib" | awk '$2 == "I" && $3 ~ /^__imp_/ { sub(/^__imp_/, "", $3); print $3 }' | sort -u >"$work/implib.names"
    published=$(wc -l <"$work/implib.names")
    missing=$(awk '{ print $2 }' "$work/ws.names" | sort -u | comm -23 "$work/implib.names" - | tr '\n' ' ')
    if [ "$published" -lt 77 ]; then
      fail "$implib lists $published names, fewer than the 77 of the system's winscard.dll"
    elif [ -z "$missing" ]; then
      pass "all $published names of the system's winscard.dll are exported"
    else
      fail "names of the system's winscard.dll not exported: $missing"
    fi
  else
    fail "cannot read the published list: $implib or $nm is missing"
  fi

  base=$(image_base "$work/ws.p")
  kinds_ok=yes
  while read -r ordinal export kind; do
    rva=$(awk -v o="$ordinal" '$1 == o { print $2 }' "$work/ws.rvas")
    if [ -z "$rva" ]; then kinds_ok=no; fail "ordinal $ordinal ($export) has no address"; continue; fi
    section=$(section_of_rva "$work/ws.sections" "$base" "$rva")
    case "$kind:$section" in
      code:.text) ;;
      data:.rdata | data:.data) ;;
      *) kinds_ok=no; fail "$export (ordinal $ordinal) is $kind but lies in section $section" ;;
    esac
  done <<<"$expected_exports"
  [ "$kinds_ok" = yes ] && pass "functions lie in .text, the three PCI records in a data section"

  imports "$work/ws.p" >"$work/ws.imports"
  check_system_imports_only ws winscard.dll FTD2XX.dll
  for runtime in libstdc++-6.dll libgcc_s_dw2-1.dll libgcc_s_seh-1.dll libwinpthread-1.dll; do
    if grep -qi "^$runtime"$'\t' "$work/ws.imports"; then fail "winscard.dll imports the run-time $runtime"; fi
  done
  ftd=$(awk -F'\t' 'tolower($1) == "ftd2xx.dll"' "$work/ws.imports")
  if [ -z "$ftd" ]; then
    fail "winscard.dll does not import FTD2XX.dll"
  else
    if [ "$bits" = 32 ]; then
      named=$(echo "$ftd" | awk -F'\t' '$3 != "<none>"')
      [ -z "$named" ] && pass "FTD2XX.dll is imported by ordinal only" \
        || fail "FTD2XX.dll functions imported by name: $(echo "$named" | cut -f3 | tr '\n' ' ')"
      got=$(echo "$ftd" | cut -f2 | sort -n | tr '\n' ' ')
      want="2 3 4 7 8 18 27 28 70 71 "
      [ "$got" = "$want" ] && pass "FTD2XX.dll ordinals imported: $got" \
        || fail "FTD2XX.dll ordinals imported are '$got', not '$want'"
    else
      # FTDI's 64-bit FTD2XX.dll is a build of its own: bound by name.
      unnamed=$(echo "$ftd" | awk -F'\t' '$3 == "<none>"' | cut -f2 | tr '\n' ' ')
      [ -z "$unnamed" ] && pass "FTD2XX.dll is imported by name only" \
        || fail "FTD2XX.dll functions imported by ordinal: $unnamed"
      got=$(echo "$ftd" | cut -f3 | sort | tr '\n' ' ')
      want="FT_Close FT_CreateDeviceInfoList FT_GetDeviceInfoList FT_GetQueueStatus FT_ListDevices FT_OpenEx FT_Read FT_SetBaudRate FT_SetDataCharacteristics FT_Write "
      [ "$got" = "$want" ] && pass "FTD2XX.dll functions imported: $got" \
        || fail "FTD2XX.dll functions imported are '$got', not '$want'"
    fi
  fi
fi

# --- FTD2XX.dll (the emulator) ---------------------------------------------------

echo "--- FTD2XX.dll (rack emulator)"
if read_module "$dir/FTD2XX.dll" ft; then
  check_machine ft FTD2XX.dll yes
  name=$(export_module_name "$work/ft.p")
  [ "${name,,}" = "ftd2xx.dll" ] && pass "module name is $name" || fail "module name is '$name', not FTD2XX.dll"
  export_names "$work/ft.p" >"$work/ft.names"
  d2xx_ok=yes
  for pair in 2:FT_Close 3:FT_Read 4:FT_Write 7:FT_SetBaudRate 8:FT_SetDataCharacteristics \
              18:FT_GetQueueStatus 27:FT_OpenEx 28:FT_ListDevices 70:FT_CreateDeviceInfoList \
              71:FT_GetDeviceInfoList; do
    grep -qx "${pair%%:*} ${pair#*:}" "$work/ft.names" || { d2xx_ok=no; fail "FTD2XX.dll lacks ${pair#*:} at ordinal ${pair%%:*}"; }
  done
  [ "$d2xx_ok" = yes ] && pass "the D2XX functions sit at their ordinals"
  # Looked up by name at run time by the fast link and the bring-up, never imported.
  for name in FT_SetLatencyTimer FT_GetLatencyTimer FT_SetEventNotification; do
    grep -q " $name\$" "$work/ft.names" && pass "$name is exported by name" || fail "FTD2XX.dll lacks $name"
  done
  decorated=$(awk '$2 ~ /@/ { print $2 }' "$work/ft.names" | tr '\n' ' ')
  [ -z "$decorated" ] && pass "no decorated names exported" || fail "decorated names exported: $decorated"
  low=$(awk '$1 < 100 && $2 !~ /^FT_/ { print $1 ":" $2 }' "$work/ft.names" | tr '\n' ' ')
  [ -z "$low" ] && pass "the control surface stays clear of the D2XX ordinals" \
    || fail "emulator functions at ordinals below 100: $low (list them in windows/ftd2xx_standin.def)"
  grep -q ' rackSimAddDevice$' "$work/ft.names" && pass "the control surface is exported" \
    || fail "rackSimAddDevice is not exported"
  check_system_imports_only ft FTD2XX.dll
fi

# --- winscard_host.exe -------------------------------------------------------------

echo "--- winscard_host.exe"
if read_module "$dir/winscard_host.exe" host; then
  check_machine host winscard_host.exe no
  check_system_imports_only host winscard_host.exe
fi

# --- tools/rackscan.exe --------------------------------------------------------------

echo "--- tools/rackscan.exe"
if read_module "$dir/tools/rackscan.exe" scan; then
  check_machine scan rackscan.exe no
  check_system_imports_only scan rackscan.exe
fi

# --- winscard.dll: nothing that may load further modules at load time ------------
# The entry function runs under the loader lock, where only kernel32-level
# work is safe. The log's folder comes from the environment and winmm is
# loaded at run time on the discovery thread, so the DLL imports neither the
# shell (shell32), COM (ole32) nor winmm: a module that is imported runs its
# own start-up inside the host's LoadLibrary.
check_loader_safe_imports() {  # tag of winscard.dll's tables
  local tag=$1 dll forbidden found=""
  for forbidden in shell32.dll ole32.dll winmm.dll; do
    while IFS=$'\t' read -r dll _; do
      [ "${dll,,}" = "$forbidden" ] && { found="$found $dll"; break; }
    done < <(imports "$work/$tag.p")
  done
  [ -z "$found" ] && pass "winscard.dll imports no shell32, ole32 or winmm" \
    || fail "winscard.dll imports$found (not allowed: loaded under the host's loader lock)"
}

echo "--- winscard.dll: loader-lock safe imports"
if [ -f "$work/ws.p" ]; then check_loader_safe_imports ws; else fail "winscard.dll's tables were not read"; fi

if [ "$failures" -ne 0 ]; then
  echo "check-dll-tables: $failures check(s) failed"
  exit 1
fi
echo "check-dll-tables: all checks passed"
