#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, and run both load scenarios with their
# default figures (2 million lines from 8 threads; a writer held for 3 seconds).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${VEK_BUILD_DIR:-$(cd "$here/../../../../.." && pwd)/build}
"$here/host_build.sh" "$build" RelWithDebInfo vek_stress
"$build/nfc/common/opensource/VekLogger/stress/vek_stress" load
"$build/nfc/common/opensource/VekLogger/stress/vek_stress" slow-storage
