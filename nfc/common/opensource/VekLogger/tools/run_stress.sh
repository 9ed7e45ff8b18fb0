#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, and run both load scenarios with their
# default figures (2 million lines from 8 threads; a writer held for 3 seconds).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
build=${VEK_BUILD_DIR:-$top/build}

"$here/install_deps.sh"
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target vek_stress
"$build/nfc/common/opensource/VekLogger/stress/vek_stress" load
"$build/nfc/common/opensource/VekLogger/stress/vek_stress" slow-storage
