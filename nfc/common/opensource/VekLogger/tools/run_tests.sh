#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, and run the whole test suite.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
build=${VEK_BUILD_DIR:-$top/build}

"$here/install_deps.sh"
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure
