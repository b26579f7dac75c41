#!/usr/bin/env bash
# Installs the Debian packages the build needs and a fresh machine may lack.
# Safe to run again: it installs only what is missing.
set -euo pipefail
need=()
have() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
for pkg in cmake ninja-build g++ clang-14 libgtest-dev libbenchmark-dev libcli11-dev nlohmann-json3-dev; do
  have "$pkg" || need+=("$pkg")
done
[ ${#need[@]} -eq 0 ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages: ${need[*]} (install them as root: apt-get install ${need[*]})" >&2
  exit 1
fi
echo "installing: ${need[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${need[@]}" >/dev/null
