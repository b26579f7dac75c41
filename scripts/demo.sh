#!/usr/bin/env bash
# A walk through a simulated controller with the sbacc tool: start-up, a disk
# pulled and fenced off, the disk replaced and rebuilt, a writer killed with an
# area open and the start-up repair of the backup pair, verify and the dump.
# Builds what it needs first (default preset).  Run from anywhere:
#   bash scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

if [ -t 1 ]; then bold=$'\033[1m' dim=$'\033[2m' off=$'\033[0m'; else bold='' dim='' off=''; fi
step=0
say() { step=$((step + 1)); printf '\n%s%d. %s%s\n' "$bold" "$step" "$*" "$off"; }
note() { printf '%s   %s%s\n' "$dim" "$*" "$off"; }
die() { echo "demo: $*" >&2; exit 1; }

# Shows a command, runs it, and checks its exit status (default 0).
expect=0
run() {
  printf '$ %s\n' "$*"
  local rc=0
  "$@" || rc=$?
  [ "$rc" -eq 0 ] || note "(exit status $rc)"
  [ "$rc" -eq "$expect" ] || die "'$*' exited $rc, expected $expect"
  expect=0
}
# The same with standard input from a string: feed TEXT COMMAND...
feed() {
  local text=$1 rc=0
  shift
  printf "\$ printf '%s' | %s\n" "$text" "$*"
  printf '%b' "$text" | "$@" || rc=$?
  [ "$rc" -eq 0 ] || note "(exit status $rc)"
  [ "$rc" -eq "$expect" ] || die "'$*' exited $rc, expected $expect"
  expect=0
}

# ---- Build ---------------------------------------------------------------------
echo "${bold}Building the sbacc tool (default preset)...${off}"
# What the build of the tool needs; on Debian the missing ones are installed
# when running as root, else named.
missing=()
for cmd in cmake ninja g++; do command -v "$cmd" >/dev/null || missing+=("$cmd"); done
for hdr in CLI/CLI.hpp nlohmann/json.hpp gtest/gtest.h; do [ -f "/usr/include/$hdr" ] || missing+=("$hdr"); done
if [ ${#missing[@]} -gt 0 ]; then
  pkgs="cmake ninja-build g++ libgtest-dev libcli11-dev nlohmann-json3-dev"
  if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null; then
    die "missing ${missing[*]}: install them (Debian, as root: apt-get install $pkgs) and run this again"
  fi
  echo "installing: $pkgs"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq $pkgs >/dev/null
fi
log=$(mktemp)
if ! { cmake --preset default && cmake --build --preset default --target sbacc_tool; } >"$log" 2>&1; then
  cat "$log" >&2
  rm -f "$log"
  die "the build failed (output above)"
fi
rm -f "$log"
export PATH="$root/build/default/tools:$PATH"
command -v sbacc >/dev/null || die "build/default/tools/sbacc is missing after the build"

work=$(mktemp -d "${TMPDIR:-/tmp}/sbacc-demo.XXXXXX")
holder=
cleanup() {
  [ -n "$holder" ] && kill -9 "$holder" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# ---- The walk ----------------------------------------------------------------------
say "A simulated controller: two HDD image files (one copy of every area on each), an"
note "area list with the seven areas the library knows by name plus two more, an NV"
note "memory image and a trace directory. The export lines point the library at them."
run sbacc sim create "$work/ctl" --areas 2
# shellcheck disable=SC1091
. "$work/ctl/env.sh"
run sbacc ls

say "Start-up initialisation: every area is examined (nothing to repair yet), then each"
note "area's NV entry is built and every copy gets a fresh header."
expect=3 run sbacc status envfw_backup0
run sbacc init
run sbacc status envfw_backup0

say "The seven known areas get their data: two backups, two markers naming them, and"
note "three version numbers (4-byte integers)."
feed 'configuration A (gen 7)\n' sbacc put envfw_backup1
feed 'configuration B (gen 8)\n' sbacc put envfw_backup0
feed 'envfw_backup0' sbacc put envfw_sysback
feed 'envfw_backup1' sbacc put envfw_sysacpt
feed '\x09\x00\x00\x00' sbacc put envfw_verid
feed '\x07\x00\x00\x00' sbacc put envfw_verback
feed '\x09\x00\x00\x00' sbacc put envfw_reboot

say "Disk 1 is pulled. Nothing in NV knows yet: status sees the copy missing (exit 2,"
note "degraded: 0 healthy, 1 incomplete, 2 degraded, 3 unavailable, 4 error)."
run sbacc sim pull "$work/ctl" 1
expect=2 run sbacc status envfw_backup0

say "The next write of envfw_backup0 cannot reach copy 1, so the library fences it off:"
note "its bit goes into the blockade mask in NV and in the surviving header. The data"
note "stays readable from copy 0."
expect=2 feed 'configuration C (gen 9)\n' sbacc put envfw_backup0
expect=2 run sbacc status envfw_backup0
run sbacc cat envfw_backup0

say "A new, empty disk goes in. The next start-up rebuilds copy 1 of every area from"
note "copy 0 under each area's repair lock, and clears the blockade."
run sbacc sim replace "$work/ctl" 1
run sbacc init
run sbacc status envfw_backup0

say "A writer opens envfw_backup0 for writing, writes part of its new data over the old"
note "and is killed (SIGKILL) before it closes: the headers still say 'open' (opn yes)."
printf 'half-written ' >"$work/partial"
printf '$ sbacc hold envfw_backup0 partial &   # then kill -9 it\n'
# Started from a subshell, so the writer is no job of this shell and its
# death brings no "Killed" notice.
holder=$( (sbacc hold envfw_backup0 "$work/partial" >"$work/hold.out" 2>&1 & echo $!) )
for _ in $(seq 100); do grep -q holding "$work/hold.out" 2>/dev/null && break; sleep 0.05; done
grep -q holding "$work/hold.out" || die "the writer did not get the area open"
note "While it lives, start-up is refused: it would rewrite what the writer writes."
expect=4 run sbacc init
kill -9 "$holder"
for _ in $(seq 100); do kill -0 "$holder" 2>/dev/null || break; sleep 0.05; done
holder=
expect=2 run sbacc status -x
run sbacc cat envfw_backup0

say "The next start-up finds envfw_backup0 left open and repairs the backup pair: the"
note "intact envfw_backup1 is copied over it, the markers are written again, and"
note "envfw_verid becomes envfw_verback + 1 (7 + 1 = 8)."
run sbacc init
run sbacc cat envfw_backup0
printf '$ sbacc cat envfw_sysback; sbacc cat envfw_sysacpt\n'
printf '%s %s\n' "$(sbacc cat envfw_sysback)" "$(sbacc cat envfw_sysacpt)"
printf '$ sbacc cat envfw_verid | od -An -tu4\n'
sbacc cat envfw_verid | od -An -tu4
run sbacc status envfw_backup0

say "verify compares every usable copy of every area byte for byte, data and header:"
note "nothing differs."
run sbacc verify

say "One byte of envfw_backup1's copy 0 flips on the disk, without an I/O error. Each copy"
note "carries an integrity record (a CRC of its data): verify names the copy that fails its"
note "own, a read takes the copy that passes, and --repair rewrites only the failing copy."
printf '$ printf X | dd of=hdd0.img seek=$((4096 + 128 + 3)) ...\n'
printf X | dd of="$work/ctl/hdd0.img" bs=1 seek=$((4096 + 128 + 3)) conv=notrunc status=none
expect=3 run sbacc verify envfw_backup1
run sbacc cat envfw_backup1
run sbacc verify --repair envfw_backup1

say "The diagnostic dump: NV entries, each copy's header and the first data bytes."
run sbacc dump "$work/dump.txt"
printf '$ head -n 24 dump.txt\n'
head -n 24 "$work/dump.txt"

printf '\n%sDone.%s Try the same by hand (the tool is build/default/tools/sbacc):\n' "$bold" "$off"
echo "  sbacc sim create DIR && . DIR/env.sh && sbacc init && sbacc status"
