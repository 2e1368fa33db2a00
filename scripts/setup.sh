#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build and test tarnwick.
set -euo pipefail
packages=(cmake ninja-build g++ clang pkg-config libgtest-dev libbenchmark-dev python3 sharutils mpack macutils binutils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get -o DPkg::Lock::Timeout=600 update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -qq "${missing[@]}" >/dev/null
fi
