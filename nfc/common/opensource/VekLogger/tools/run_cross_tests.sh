#!/usr/bin/env bash
# From a fresh checkout: cross-builds the library, its tests and the stress check for arm64 or
# armhf with Debian's cross compiler and runs them under qemu-user, in build-ARCH (the
# installed-package check is the host build's).
#
#   run_cross_tests.sh arm64|armhf [cmake options...]
#
# The target's Android libraries, zlib and GoogleTest are Debian's packages for ARCH, downloaded
# with an apt state of the build directory's own (the host's apt and dpkg are left alone) and
# unpacked into build-ARCH/sysroot; cmake/DebianCross.cmake builds against them. armhf has
# 64-bit file offsets and a 32-bit time_t. When armhf's packages cannot be downloaded, the
# script prints apt's errors and exits 0; for arm64 that is a failure.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
module=$(cd "$here/.." && pwd)
arch=${1:-}
[ $# -gt 0 ] && shift
case "$arch" in
  arm64) triplet=aarch64-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf ;;
  *) echo "usage: $0 arm64|armhf [cmake options...]" >&2; exit 2 ;;
esac
build=${VEK_BUILD_DIR:-$top/build-$arch}
sysroot=$build/sysroot

# gzip and lnav run natively: the tests call them as a field engineer would.
"$here/install_deps.sh" "g++-$triplet" qemu-user-static gzip lnav

state=$build/apt
mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
: >"$state/status"
apt=(apt-get -qq -o APT::Architecture="$arch" -o APT::Architectures::="$arch"
  -o Dir::State::Lists="$state/lists" -o Dir::State::status="$state/status"
  -o Dir::Cache="$state/cache" -o APT::Sandbox::User=root)
rm -rf "$build/debs" "$sysroot"
mkdir -p "$build/debs" "$sysroot"
# One stale index (a mirror mid-sync) fails the whole update; the download tells whether the
# indices that did arrive have what is needed.
"${apt[@]}" update >"$state/errors" 2>&1 || true
if ! (cd "$build/debs" && "${apt[@]}" download android-libbase android-libbase-dev \
  android-liblog android-liblog-dev zlib1g zlib1g-dev libgtest-dev) >>"$state/errors" 2>&1; then
  echo "== $arch: not run: its packages could not be downloaded; apt said:"
  cat "$state/errors"
  # arm64 must always run; the 32-bit target may wait for the mirror.
  [ "$arch" = armhf ] && exit 0
  exit 1
fi
if [ -s "$state/errors" ]; then
  echo "== $arch: the packages were downloaded, though apt said:"
  cat "$state/errors"
fi

for deb in "$build"/debs/*.deb; do dpkg -x "$deb" "$sysroot"; done
# Absolute links (libz.so) point into the target's root: make them point into the sysroot.
find "$sysroot" -type l -lname '/*' | while read -r link; do
  ln -sfn "$sysroot$(readlink "$link")" "$link"
done

echo "== $arch: $triplet-g++, tests under qemu-user, in $build"
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$module/cmake/DebianCross.cmake" -DVEK_CROSS_ARCH="$arch" \
  -DVEK_SYSROOT="$sysroot" "$@"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure
