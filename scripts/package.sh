#!/usr/bin/env bash
# Builds the release package: a zip holding the 32-bit and the 64-bit
# winscard.dll, the rackscan.exe of each, the README and docs/windows.md.
#
#   bash scripts/package.sh        -> build/tessel-winscard-<version>.zip
#
# The version is the one of project() in CMakeLists.txt. The cross-builds
# are Release builds in build/win32 and build/win64 (the trees the Windows
# stage uses). The rack emulator's FTD2XX.dll and the test host stay out:
# on a farm machine FTD2XX.dll is FTDI's own, installed with its driver.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

command -v zip >/dev/null || { echo "package: zip not found (scripts/install-deps.sh installs it)" >&2; exit 1; }

version=$(sed -n 's/^project([A-Za-z_]* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "package: no VERSION in CMakeLists.txt's project()" >&2; exit 1; }
name="tessel-winscard-$version"

for bits in 32 64; do
  case "$bits" in 32) toolchain=i686 ;; 64) toolchain=x86_64 ;; esac
  echo "--- $bits-bit Release build (build/win$bits)"
  cmake -S . -B "build/win$bits" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-$toolchain-mingw.cmake" >/dev/null
  cmake --build "build/win$bits" -j2 --target winscard rackscan
done

staging="build/package/$name"
rm -rf build/package
mkdir -p "$staging/32-bit" "$staging/64-bit" "$staging/docs"
for bits in 32 64; do
  cp "build/win$bits/windows/winscard.dll" "build/win$bits/windows/tools/rackscan.exe" "$staging/$bits-bit/"
done
cp README.md "$staging/"
cp docs/windows.md "$staging/docs/"

zip_file="build/$name.zip"
rm -f "$zip_file"
(cd build/package && zip -q -r -X "$root/$zip_file" "$name")

if unzip -Z1 "$zip_file" | grep -qi 'ftd2xx'; then
  echo "package: the rack emulator slipped into $zip_file" >&2
  exit 1
fi
unzip -l "$zip_file"
echo "package: $zip_file"
