#!/usr/bin/env bash
# Installs the build and test dependencies from Debian's packages. Safe to run again:
# apt-get runs only when something is missing.
set -euo pipefail

packages=(
    cmake ninja-build g++ clang pkg-config
    qtbase5-dev qtbase5-dev-tools
    qemu-system-x86 qemu-utils
    g++-mingw-w64-x86-64
    tar python3 procps iproute2
    syslinux syslinux-common mtools dosfstools fdisk cpio gzip
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    sudo_cmd=()
    [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
