#!/bin/sh
#===- armhf-sysroot.sh - the armhf libraries the cross build links against -===#
#
# Builds a sysroot folder with Debian's armhf builds of Boost, OpenSSL and GoogleTest (and
# everything they depend on, glibc and libstdc++ included), plus the tracing probe header
# <sys/sdt.h>, for cmake/armhf-toolchain.cmake and for qemu-arm -L. The host's dpkg is not touched: apt runs with its own state under
# <sysroot>/.apt, native architecture armhf, the host's package sources and an empty package
# status, so it resolves the whole dependency closure; the .deb files are then unpacked with
# dpkg-deb -x. No maintainer script runs, so no emulation is needed to build the folder.
#
# Usage: cmake/armhf-sysroot.sh [SYSROOT]   (default: build-arm-sysroot)
#
# Idempotent: a stamp records the package list and this script's checksum; when both match,
# the script returns at once. Any failure to get a package is fatal: the ARM stage must never
# pass with a half-made sysroot.
set -eu

SYSROOT=${1:-build-arm-sysroot}
ARCH=armhf
TRIPLET=arm-linux-gnueabihf
PACKAGES="libboost1.74-dev libboost-thread1.74-dev libboost-system1.74-dev libssl-dev
libgtest-dev libgmock-dev"
# Packages taken alone, without what they depend on: systemtap-sdt-dev is wanted for its headers
# only (its dtrace script would pull in an armhf Python).
HEADER_PACKAGES="systemtap-sdt-dev"

die() {
  echo "armhf sysroot: ERROR: $*" >&2
  exit 1
}

command -v apt-get >/dev/null 2>&1 || die "apt-get not found (a Debian host is required)"
command -v dpkg-deb >/dev/null 2>&1 || die "dpkg-deb not found"

mkdir -p "$SYSROOT"
SYSROOT=$(cd "$SYSROOT" && pwd)
[ "$SYSROOT" != / ] || die "refusing to use / as the sysroot"
STAMP="$SYSROOT/.sysroot-stamp"
WANT=$(printf '%s\n%s\n' "$(echo $PACKAGES $HEADER_PACKAGES)" "$(cksum < "$0")")

if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "$WANT" ]; then
  echo "armhf sysroot: up to date ($SYSROOT)"
  exit 0
fi

# Never clear a folder this script did not make (a mistyped SYSROOT such as ".").
if [ -n "$(ls -A "$SYSROOT")" ] && [ ! -d "$SYSROOT/.apt" ]; then
  die "$SYSROOT is not empty and was not made by this script; refusing to clear it"
fi
echo "armhf sysroot: building $SYSROOT"
# Start from nothing: a half-made folder from an interrupted run must not survive.
find "$SYSROOT" -mindepth 1 -maxdepth 1 -exec rm -rf {} +

APT_DIR="$SYSROOT/.apt"
mkdir -p "$APT_DIR/state/lists/partial" "$APT_DIR/cache/archives/partial" "$APT_DIR/prefs.d"
: > "$APT_DIR/status"

apt_private() {
  apt-get -q \
    -o APT::Architecture=$ARCH \
    -o APT::Architectures::=$ARCH \
    -o Dir::State="$APT_DIR/state" \
    -o Dir::State::status="$APT_DIR/status" \
    -o Dir::Cache="$APT_DIR/cache" \
    -o Dir::Etc::Preferences=/dev/null \
    -o Dir::Etc::PreferencesParts="$APT_DIR/prefs.d" \
    -o APT::Install-Recommends=false \
    -o APT::Install-Suggests=false \
    -o Acquire::Retries=3 \
    "$@"
}

# A mirror in mid-sync answers with a short index now and then: retry the update a few times.
# If one index still fails (e.g. the security suite), apt keeps what it has and the download
# below is the real check: it fails when a package cannot be had.
tries=0
until apt_private update >"$APT_DIR/update.log" 2>&1; do
  tries=$((tries + 1))
  if [ $tries -ge 3 ]; then
    echo "armhf sysroot: warning: some package indexes did not load; going on with the" \
      "others (see $APT_DIR/update.log):" >&2
    grep -E '^(E|W):' "$APT_DIR/update.log" | sed 's/^/    /' >&2 || true
    break
  fi
  sleep 3
done

# shellcheck disable=SC2086
apt_private install --download-only -y $PACKAGES >"$APT_DIR/download.log" 2>&1 || {
  cat "$APT_DIR/download.log" >&2
  die "could not download the $ARCH packages: $(echo $PACKAGES)"
}

# shellcheck disable=SC2086
(cd "$APT_DIR/cache/archives" && apt_private download $HEADER_PACKAGES) >>"$APT_DIR/download.log" 2>&1 || {
  cat "$APT_DIR/download.log" >&2
  die "could not download the $ARCH packages: $HEADER_PACKAGES"
}

set -- "$APT_DIR"/cache/archives/*.deb
[ -f "$1" ] || die "no $ARCH package was downloaded"
for deb in "$@"; do
  dpkg-deb -x "$deb" "$SYSROOT" || die "could not unpack $deb"
done
echo "armhf sysroot: unpacked $# packages"

# Absolute links (libm.so -> /lib/...) would point into the host: make them relative.
find "$SYSROOT" -path "$APT_DIR" -prune -o -type l -print | while read -r link; do
  target=$(readlink "$link")
  case "$target" in
    /*) ln -snf "$(realpath -ms --relative-to="$(dirname "$link")" "$SYSROOT$target")" "$link" ;;
  esac
done

# The files the build and the emulator rely on; a missing one is fatal.
for f in \
  lib/ld-linux-armhf.so.3 \
  usr/include/boost/version.hpp \
  usr/include/openssl/ssl.h \
  usr/include/gtest/gtest.h \
  usr/include/gmock/gmock.h \
  usr/include/$TRIPLET/sys/sdt.h \
  usr/lib/$TRIPLET/libboost_thread.so \
  usr/lib/$TRIPLET/libboost_system.so \
  usr/lib/$TRIPLET/libssl.so \
  usr/lib/$TRIPLET/libcrypto.so \
  usr/lib/$TRIPLET/libgtest.a \
  usr/lib/$TRIPLET/libgmock.a \
  usr/lib/$TRIPLET/cmake/GTest/GTestConfig.cmake \
  usr/lib/$TRIPLET/cmake/boost_thread-1.74.0/boost_thread-config.cmake; do
  [ -e "$SYSROOT/$f" ] || die "$f is missing after unpacking"
done

# The .deb files are no longer needed; the lists stay for a look at what was resolved.
rm -f "$APT_DIR"/cache/archives/*.deb
printf '%s\n' "$WANT" > "$STAMP"
echo "armhf sysroot: ready ($SYSROOT)"
