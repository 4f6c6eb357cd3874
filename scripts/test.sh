#!/usr/bin/env bash
# The whole test run: installs what is missing, builds natively and runs
# the suite, runs Debian's PC/SC clients against the library, builds the
# product with clang's thread-safety analysis, cross-builds it for 32-bit and 64-bit Windows and runs the Windows stage
# under Wine, then runs the suite again under AddressSanitizer+UBSan and
# under ThreadSanitizer. Each stage prints its own summary.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

bash scripts/install-deps.sh

stage() { echo; echo "=== $* ==="; }

stage "layers call only down"; bash scripts/check-layers.sh

stage "native build and tests"
cmake -S . -B build/native -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/native -j "$jobs"
ctest --test-dir build/native -j "$jobs" --output-on-failure

stage "PC/SC clients against libpcsclite.so.1 (pcsc_scan, opensc-tool, pyscard, Rust pcsc, Java smartcardio)"
bash scripts/test-clients.sh build/native

stage "lock discipline (clang thread-safety analysis, build only)"
cmake -S . -B build/thread-safety -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTESSEL_TESTS=OFF -DTESSEL_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_CXX_FLAGS="-Wthread-safety -Werror=thread-safety" >/dev/null
cmake --build build/thread-safety -j "$jobs"

stage "32-bit Windows cross-build"
cmake -S . -B build/win32 -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-i686-mingw.cmake" >/dev/null
cmake --build build/win32 -j "$jobs"

stage "64-bit Windows cross-build"
cmake -S . -B build/win64 -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-x86_64-mingw.cmake" >/dev/null
cmake --build build/win64 -j "$jobs"

if [ -x scripts/test-wine.sh ]; then
  stage "Windows stage under Wine"
  bash scripts/test-wine.sh build/win32 build/win64
fi

stage "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTESSEL_SANITIZE=address -DTESSEL_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build/asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan -j "$jobs" --output-on-failure

stage "ThreadSanitizer"
cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSEL_SANITIZE=thread -DTESSEL_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build/tsan -j "$jobs"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build/tsan -j "$jobs" --output-on-failure

if [ -x scripts/fuzz.sh ]; then
  stage "fuzzing"
  bash scripts/fuzz.sh
fi

echo
echo "all stages passed"
