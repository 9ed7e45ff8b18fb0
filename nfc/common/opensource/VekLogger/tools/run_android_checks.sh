#!/usr/bin/env bash
# From a fresh checkout: checks that Android.bp is as bpfmt formats it and that the library keeps
# its lock rules (clang's -Wthread-safety), then builds the library
# (vek_log_record, with the vek_host_platform it links) with clang and Android's default flags,
# once as gnu++17 and once as gnu++20, each in build-android-gnu++NN.
#
#   run_android_checks.sh [cmake options...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
module=$(cd "$here/.." && pwd)
flags=(-fno-exceptions -fno-rtti -Wall -Wextra -Werror)

"$here/install_deps.sh" clang blueprint-tools libc++-dev libc++abi-dev

# bpfmt exits 0 either way; a difference is what it prints.
difference=$(bpfmt -d "$module/Android.bp")
if [ -n "$difference" ]; then
  printf '%s\n' "$difference"
  echo "Android.bp is not as bpfmt formats it: bpfmt -w $module/Android.bp fixes it" >&2
  exit 1
fi
echo "== Android.bp: bpfmt-clean"

# The lock rules: clang's analysis against libc++'s annotated std::mutex (Debian's libbase is
# built against libstdc++, so this only compiles).
for source in "$module"/cpp/*.cpp; do
  clang++ -std=gnu++17 -stdlib=libc++ -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS -Wthread-safety \
    -Werror "${flags[@]}" -fsyntax-only -I"$module/include" -I"$module/cpp" \
    -I"$module/host_platform" -isystem /usr/include/android "$source"
done
echo "== -Wthread-safety: clean"

# Each room of cpp/ (X.h with X.cpp) stands on the ones below it: no two include each other.
includes() {  # the rooms that room $1 includes, itself too
  local file
  for file in "$module/cpp/$1".h "$module/cpp/$1".cpp; do
    [ ! -f "$file" ] || sed -n 's/^#include "\(VekLog[A-Za-z]*\)\.h"$/\1/p' "$file"
  done
}
for room in $(ls "$module"/cpp/ | grep -E '\.(h|cpp)$' | sed 's/\.[^.]*$//' | sort -u); do
  for below in $(includes "$room"); do
    if [ "$below" != "$room" ] && [[ " $(includes "$below" | tr '\n' ' ') " == *" $room "* ]]; then
      echo "cpp/: $room and $below include each other" >&2
      exit 1
    fi
  done
done
echo "== rooms of cpp/: none includes another that includes it"

for standard in 17 20; do
  build=$top/build-android-gnu++$standard
  echo "== vek_log_record: clang++ -std=gnu++$standard ${flags[*]} in $build"
  CC=clang CXX=clang++ cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DBUILD_TESTING=OFF -DCMAKE_CXX_STANDARD="$standard" -DCMAKE_CXX_EXTENSIONS=ON \
    -DCMAKE_CXX_FLAGS="${flags[*]}" "$@" >/dev/null
  cmake --build "$build" -j"$(nproc)" --target vek_log_record
  # Every compile of the library and of vek_host_platform must have carried every flag.
  commands=$(grep -E '"command": .* -c .*/VekLogger/(cpp|host_platform)/[^/]*\.cpp",?$' \
    "$build/compile_commands.json") || { echo "no compile of the library in $build" >&2; exit 1; }
  for flag in -std=gnu++"$standard" "${flags[@]}"; do
    if grep -q -v -F -e " $flag " <<<"$commands"; then
      echo "a compile command of the library lacks $flag" >&2
      exit 1
    fi
  done
  echo "== gnu++$standard: $(wc -l <<<"$commands") compile commands, each with all of these flags"
done
