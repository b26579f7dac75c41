#!/usr/bin/env bash
# Packaging check: builds the Debian packages from the default build, runs
# lintian on them (an error fails), unpacks them into a scratch root and
# builds and runs a consumer there with pkg-config and with find_package; then
# does the same from a scratch-prefix install, where the tool must run as it
# is and the stand-ins must come only when asked for.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
bash scripts/deps.sh
for tool in lintian pkg-config dpkg-shlibdeps; do
  command -v "$tool" >/dev/null || need="${need:-} $tool"
done
if [ -n "${need:-}" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "missing:$need (apt-get install lintian pkg-config dpkg-dev)" >&2; exit 1; }
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq lintian pkg-config dpkg-dev >/dev/null
fi

build=${PACKAGE_BUILD_DIR:-build/default}
[ -f "$build/CMakeCache.txt" ] || cmake --preset default >/dev/null
nice -n 5 cmake --build "$build" >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
step() { echo "--- $*"; }

step "packages"
(cd "$work" && cpack --config "$src/$build/CPackConfig.cmake" -B "$work/debs" >/dev/null)
debs=("$work"/debs/*.deb)
[ ${#debs[@]} -eq 4 ] || { echo "expected 4 packages, got ${#debs[@]}" >&2; exit 1; }
for deb in "${debs[@]}"; do
  printf '%s: %s\n' "$(basename "$deb")" "$(dpkg-deb -f "$deb" Depends)"
done

step "lintian"
lintian --fail-on error --tag-display-limit 0 "${debs[@]}"

# Builds the consumer with pkg-config and with find_package against the tree
# at $1 (its prefix), runs it and the installed tool on a simulated
# controller.  $2: what the consumer needs at run time for its own link.
consume() {
  local prefix=$1 libpath=$2 tool=$1/bin/sbacc name
  name=$(basename "$prefix")
  local pcdir
  pcdir=$(dirname "$(find "$prefix" -name sbacc.pc)")
  "$tool" sim create "$work/sim-$name" >/dev/null
  # shellcheck disable=SC1090
  (. "$work/sim-$name/env.sh"
   "$tool" init >/dev/null
   cc -Wall -Werror -o "$work/pc-$name" "$src/packaging/consumer/consumer.c" \
     $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs sbacc)
   LD_LIBRARY_PATH=$libpath "$work/pc-$name" envfw_backup0 "pkg-config $name"
   # The platform libraries are the library's needs, not the program's.
   ! readelf -d "$work/pc-$name" | grep -E 'NEEDED.*(mc_logapi|sanfwctl)'
   cmake -S "$src/packaging/consumer" -B "$work/cm-$name" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
   cmake --build "$work/cm-$name" >/dev/null
   "$work/cm-$name/consumer" envfw_backup0 "find_package $name"
   [ "$("$tool" cat envfw_backup0)" = "find_package $name" ]
   "$tool" verify >/dev/null)
}

step "unpacked packages"
root=$work/root
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$root"; done
libdir=$(dirname "$(find "$root" -name 'libsbacc.so.1')")
consume "$root/usr" "$libdir"

step "scratch-prefix install"
cmake --install "$build" --prefix "$work/bare" >/dev/null
if find "$work/bare" -name 'libmc_logapi*' -o -name 'sanfwctl.h' | grep -q .; then
  echo "the stand-ins were installed without being asked for" >&2
  exit 1
fi
cp -a "$work/bare" "$work/prefix"
cmake --install "$build" --prefix "$work/prefix" --component standins >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libsbacc.so.1')")
consume "$work/prefix" "$libdir"

step "man pages"
for page in "$root"/usr/share/man/man*/sbacc.*; do
  MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null | { ! grep .; }
  echo "$(basename "$page") renders"
done
