#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, and run the whole test suite.
#
#   run_tests.sh [plain|asan|tsan|fuzz] [cmake options...]
#
# plain (the default) builds with the system compiler; asan builds everything with
# AddressSanitizer and UndefinedBehaviorSanitizer, tsan with ThreadSanitizer (both with clang);
# fuzz runs each libFuzzer target for VEK_FUZZ_SECONDS (60) on top of the kept corpus.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
variant=${1:-plain}
[ $# -gt 0 ] && shift

case "$variant" in
  plain) build=$top/build; options=() ;;
  asan | fuzz) build=$top/build-asan; options=(-DVEK_SANITIZE=address -DVEK_FUZZ=ON) ;;
  tsan) build=$top/build-tsan; options=(-DVEK_SANITIZE=thread) ;;
  *) echo "usage: $0 [plain|asan|tsan|fuzz] [cmake options...]" >&2; exit 2 ;;
esac
build=${VEK_BUILD_DIR:-$build}

# gzip and lnav: tests read the archives as a field engineer would.
if [ "$variant" = plain ]; then
  "$here/install_deps.sh" gzip lnav
else
  "$here/install_deps.sh" gzip lnav clang libclang-rt-14-dev
  export CC=clang CXX=clang++
fi
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# A forked child starts threads of its own, which ThreadSanitizer can only follow when told not
# to stop there, and not to wait at exit for the threads its copied registry still lists.
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:atexit_sleep_ms=0

cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${options[@]}" "$@"
cmake --build "$build" -j"$(nproc)"
if [ "$variant" != fuzz ]; then
  ctest --test-dir "$build" -j"$(nproc)" --output-on-failure
  exit 0
fi

seconds=${VEK_FUZZ_SECONDS:-60}
# A tail's input reaches past its 4 KiB header into the ring's first lines.
for run in fuzz_record:4096 fuzz_recovery:32768; do
  target=${run%:*}
  found=$(mktemp -d)
  echo "== $target for ${seconds}s"
  "$build/nfc/common/opensource/VekLogger/fuzz/$target" -max_total_time="$seconds" \
    -max_len="${run#*:}" -print_final_stats=1 "$found" "$here/../fuzz/corpus/${target}_seeds"
  rm -rf "$found"
done
