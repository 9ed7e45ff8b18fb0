#!/usr/bin/env bash
# Installs what is missing and builds one target of the host build.
#   host_build.sh BUILD_DIR BUILD_TYPE TARGET [EXTRA_PACKAGE...]
# VEK_CMAKE_OPTIONS adds options to the configure step.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
build=$1
type=$2
target=$3
shift 3

"$here/install_deps.sh" "$@"
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE="$type" ${VEK_CMAKE_OPTIONS:-} >/dev/null
cmake --build "$build" -j"$(nproc)" --target "$target"
