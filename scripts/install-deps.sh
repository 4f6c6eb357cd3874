#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the client
# checks (Debian's cargo with the packaged pcsc crate, Debian's OpenJDK,
# Perl's Chipcard::PCSC)
# and the Windows stage need. Safe to run again: packages already present are left alone,
# and apt is only asked when something is missing.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive

native_packages=(
  g++ clang cmake ninja-build make pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libclang-rt-14-dev
  g++-mingw-w64-i686 binutils-mingw-w64-i686
  g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64
  zip unzip
  libpcsclite-dev pcsc-tools opensc python3-pyscard libpcsc-perl
  vsmartcard-vpicc python3-pycryptodome
  cargo rustc librust-pcsc-dev default-jdk-headless
)

missing=()
for p in "${native_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

updated=no
apt_update() {
  # An index that fails to download (the i386 security index is known to be
  # out of step at times) must not stop the install: apt then works from the
  # indexes it did get, and the pin below keeps it on the main suite.
  if [ "$updated" = no ]; then $SUDO apt-get update -qq || echo "install-deps: apt-get update reported errors, going on"; updated=yes; fi
}

if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  apt_update
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The Windows stage runs the 32-bit DLL under Wine, which needs the i386
# architecture (wine32), and the 64-bit DLL under wine64. Debian's security suite index for i386 can lag behind the
# installed amd64 packages; ranking it below the main suite lets apt pick
# matching versions from the main suite instead of failing on unmet deps.
if [ "${SKIP_WINE:-0}" != 1 ]; then
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    $SUDO dpkg --add-architecture i386
    updated=no
  fi
  prefs=/etc/apt/preferences.d/tessel-security-below-main
  if [ ! -f "$prefs" ]; then
    printf 'Package: *\nPin: release l=Debian-Security\nPin-Priority: 400\n' | $SUDO tee "$prefs" >/dev/null
  fi
  if ! dpkg-query -W -f='${Status}' wine32:i386 2>/dev/null | grep -q 'install ok installed' \
     || ! dpkg-query -W -f='${Status}' wine64 2>/dev/null | grep -q 'install ok installed' \
     || ! command -v wine >/dev/null; then
    echo "install-deps: installing wine, wine32:i386 and wine64"
    apt_update
    $SUDO apt-get install -y -qq --no-install-recommends wine wine32:i386 wine64
  fi
fi
echo "install-deps: all packages present"
