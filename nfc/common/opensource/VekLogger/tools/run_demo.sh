#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, and run the host demonstration.
# Options are passed to vek_demo (--help lists them).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
build=${VEK_BUILD_DIR:-$top/build}

"$here/install_deps.sh"
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target vek_demo
"$build/nfc/common/opensource/VekLogger/demo/vek_demo" "$@"
