#!/usr/bin/env bash
# Packaging check: builds the Debian packages from the default build, runs
# lintian on them (an error or a warning without an override fails), unpacks
# them into a scratch root and builds and runs a consumer there with
# pkg-config and with find_package; then does the same from a scratch-prefix
# install, where the tool must run as it is and the stand-ins must come only
# when asked for.  As root it also installs the runtime and development
# packages as on a controller (the platform libraries from a directory of
# their own, no stand-ins package), checks the units and their security
# rating, purges them and finds nothing left.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
bash scripts/deps.sh
# lintian, pkg-config, dpkg-shlibdeps (dpkg-dev), systemd-analyze (systemd)
# and deb-systemd-helper (init-system-helpers).
for tool in lintian:lintian pkg-config:pkg-config dpkg-shlibdeps:dpkg-dev systemd-analyze:systemd \
            deb-systemd-helper:init-system-helpers; do
  command -v "${tool%%:*}" >/dev/null || need="${need:-} ${tool#*:}"
done
if [ -n "${need:-}" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "missing:$need (apt-get install$need)" >&2; exit 1; }
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $need >/dev/null
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
lintian --fail-on error,warning --tag-display-limit 0 "${debs[@]}"

# Builds the consumer with pkg-config and with find_package against the tree
# at $1 (its prefix), runs it and the installed tool on a simulated
# controller.  $2: what the consumer needs at run time for its own link; $3:
# the root a package tree was unpacked into (its .pc names /usr).
consume() {
  local prefix=$1 libpath=$2 sysroot=${3:-} tool=$1/bin/sbacc name
  name=$(basename "$prefix")
  local pcdir
  pcdir=$(dirname "$(find "$prefix" -name sbacc.pc)")
  "$tool" sim create "$work/sim-$name" >/dev/null
  # shellcheck disable=SC1090
  (. "$work/sim-$name/env.sh"
   "$tool" init >/dev/null
   cc -Wall -Werror -o "$work/pc-$name" "$src/packaging/consumer/consumer.c" \
     $(PKG_CONFIG_PATH=$pcdir PKG_CONFIG_SYSROOT_DIR=$sysroot PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=${sysroot:+1} \
       PKG_CONFIG_ALLOW_SYSTEM_LIBS=${sysroot:+1} pkg-config --cflags --libs sbacc)
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
consume "$root/usr" "$libdir" "$root"

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

# As on a controller: the firmware's platform libraries in a directory on the
# loader's path, the packages installed with dpkg, then purged; every file
# and directory under /etc, /usr, /opt and /var/lib afterwards is one that
# was there before.
controller_install() {
  local platform=/opt/sbacc-platform/lib conf=/etc/ld.so.conf.d/sbacc-platform.conf
  local pkgs=(libsbacc1 sbacc libsbacc-dev) before after
  if [ "$(id -u)" -ne 0 ] || dpkg-query -W "${pkgs[@]}" sbacc-standins >/dev/null 2>&1 || [ -e $platform ]; then
    echo "(skipped: needs root and a machine without the sbacc packages)"
    return
  fi
  snapshot() { find /etc /usr /opt /var/lib -xdev \( -path /var/lib/dpkg -o -path /var/lib/apt \) -prune -o -print | sort; }
  before=$(snapshot)
  # Undone on any way out (the function's locals are gone by then).
  trap 'dpkg --purge libsbacc1 sbacc libsbacc-dev >/dev/null 2>&1 || true
        rm -rf /opt/sbacc-platform /etc/ld.so.conf.d/sbacc-platform.conf; ldconfig || true; rm -rf "$work"' EXIT
  mkdir -p $platform
  cp -a "$root"/usr/lib/*/libmc_logapi.so.1* "$root"/usr/lib/*/libsanfwctl.so.1* $platform/
  echo $platform >$conf
  ldconfig
  dpkg -i "$work"/debs/libsbacc1_*.deb "$work"/debs/sbacc_*.deb "$work"/debs/libsbacc-dev_*.deb >/dev/null
  [ "$(pkg-config --cflags --libs sbacc | xargs)" = "-lsbacc" ] || { echo "pkg-config: $(pkg-config --cflags --libs sbacc)" >&2; exit 1; }
  ldd /usr/bin/sbacc | grep -q "libsanfwctl.so.1 => $platform/" || { echo "sbacc does not find the platform libraries" >&2; exit 1; }
  for link in timers.target.wants/sbacc-scrub.timer timers.target.wants/sbacc-metrics.timer \
              multi-user.target.wants/sbacc-monitor.service; do
    [ -L /etc/systemd/system/$link ] || { echo "not enabled: $link" >&2; exit 1; }
  done
  if command -v systemd-analyze >/dev/null; then
    for unit in /usr/lib/systemd/system/sbacc-*.service; do
      score=$(systemd-analyze security --offline=true "$unit" 2>/dev/null | sed -n 's/.*exposure level for .*: \([0-9.]*\).*/\1/p')
      echo "$(basename "$unit"): exposure $score"
      awk -v s="$score" 'BEGIN { exit !(s != "" && s <= 4.0) }' || { echo "$unit: above 4.0" >&2; exit 1; }
    done
  fi
  # The tool as installed, on a simulated controller, keeping state.
  mkdir -p /var/lib/sbacc
  (cd "$work" && /usr/bin/sbacc sim create "$work/ctl" >/dev/null && . "$work/ctl/env.sh" && sbacc init >/dev/null &&
   sbacc verify >/dev/null && ls /var/lib/sbacc/scrub-*.json >/dev/null)
  dpkg --purge "${pkgs[@]}" >/dev/null
  rm -rf /opt/sbacc-platform $conf
  ldconfig
  after=$(snapshot)
  if [ "$before" != "$after" ]; then
    echo "left after purge:" >&2
    diff <(echo "$before") <(echo "$after") >&2 || true
    exit 1
  fi
  echo "installed without the stand-ins, purged, nothing left"
}

step "controller install and purge"
controller_install

step "man pages"
for page in "$root"/usr/share/man/man*/sbacc.*; do
  MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null | { ! grep .; }
  echo "$(basename "$page") renders"
done
