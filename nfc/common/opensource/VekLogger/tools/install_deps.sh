#!/usr/bin/env bash
# Installs the Debian packages the library and its tests build with, plus any named as
# arguments, when missing.
set -euo pipefail

packages=(cmake make g++ pkgconf libgtest-dev android-libbase-dev android-liblog-dev
  zlib1g-dev "$@")
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
  "${missing[@]}"
