#!/usr/bin/env bash
# The quick start: installs what the build needs, builds the library and
# rackscan, and runs rackscan's demo against the emulated rack: the reader
# table, one card event and one APDU exchange. Exits 0 when all of that
# worked.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

# The demo needs no Windows toolchain run, so Wine is left out.
SKIP_WINE=1 bash scripts/install-deps.sh

echo "demo: building libpcsclite.so.1 and rackscan in build/native"
cmake -S . -B build/native -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/native --target rackscan winscard -j "$jobs"

echo
echo "demo: build/native/tools/rackscan demo"
exec build/native/tools/rackscan demo
