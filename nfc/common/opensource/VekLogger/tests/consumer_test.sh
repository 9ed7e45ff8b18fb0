#!/usr/bin/env bash
# Installs the build into a scratch prefix, builds the example out of tree against it through
# the CMake package and through pkg-config, runs both, and checks that their lines reached the
# log file.  usage: consumer_test.sh BUILD_DIR MODULE_DIR
set -euo pipefail
build=$1
module=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
cmake -S "$module/tests/consumer" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DVEK_EXAMPLES_DIR="$module/examples" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
libdir=$(dirname "$(find "$prefix" -name pkgconfig -type d)")
g++ -std=c++17 "$module/examples/log_and_flush.cpp" -o "$scratch/pkg-config-build" \
  $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs vek_log_record)

mkdir -p "$scratch/root/data/vendor/nfc"
log=$scratch/root/data/vendor/nfc/nfc_process.veklog
VEK_LOG_ROOT=$scratch/root "$scratch/cmake-build/log_and_flush"
VEK_LOG_ROOT=$scratch/root LD_LIBRARY_PATH=$libdir "$scratch/pkg-config-build"
found=$(grep -c " I NfcService: Discovery started, mode 2$" "$log")
if [ "$found" != 2 ]; then
  echo "expected the example's line once per consumer, found $found in $log" >&2
  exit 1
fi
echo "both consumers logged through the installed library"
