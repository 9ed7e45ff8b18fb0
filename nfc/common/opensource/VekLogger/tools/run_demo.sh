#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, and run the host demonstration.
# Options are passed to vek_demo (--help lists them).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${VEK_BUILD_DIR:-$(cd "$here/../../../../.." && pwd)/build}
"$here/host_build.sh" "$build" RelWithDebInfo vek_demo
"$build/nfc/common/opensource/VekLogger/demo/vek_demo" "$@"
