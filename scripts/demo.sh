#!/usr/bin/env bash
# A short tour of vesta-ctrl on the server's built-in kits: builds the server and the tool, lets
# the library start the server, lists the targets, powers one on, shows its information, makes it
# the default and lists them again. A server that was already running is left running; one the
# tour started is stopped at the end.
# The build tree is ${VEKX_BUILD_ROOT:-build}/linux, the one the README's commands use.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=${VEKX_BUILD_ROOT:-$root/build}
kit=devkit-beta

step() { printf '\n== %s\n' "$*"; }
show() {
  printf '$ vesta-ctrl %s\n' "$*"
  "$ctrl" "$@"
}

step "Building vesta-kx and vesta-ctrl (the first build takes a few minutes)"
cmake -S "$root" -B "$out/linux" -G Ninja >/dev/null
cmake --build "$out/linux" -j2 --target vesta-kx vesta-ctrl
ctrl="$out/linux/server/vesta-ctrl"

started_here=false
if "$ctrl" --json server status | grep -q '"running":false'; then
  started_here=true
  trap '"$ctrl" server stop >/dev/null || true' EXIT
fi

step "The library starts the server when it is not running"
show server start

step "The targets the server knows"
show targets
if ! "$ctrl" info "$kit" >/dev/null 2>&1; then
  echo "The running server has no '$kit' (it was started on another scenario)." >&2
  echo "Stop it with '$ctrl server stop' and run the tour again." >&2
  exit 1
fi

step "Powering $kit on: the command returns once the kit is on"
show power on "$kit"
show power status "$kit"

step "What the server knows about $kit"
show info "$kit"

step "Making $kit the default target"
show default "$kit"
show targets

step "What to try next"
shown=${ctrl#"$PWD"/}
echo "vesta-ctrl is $shown; a TARGET is a handle, a host name or a name."
width=$((${#shown} + 38))
try() { printf '  %-*s %s\n' "$width" "$shown $1" "$2"; }
try "--help" "every command"
try "reboot $kit" "reboot a kit; returns once it is back on"
try "connect 192.168.40.99" "a host that never answers: see the error"
try "discover" "the kits that answer on the network"
try "error 0x8004021B" "what a result code means"
try "events" "every event as it arrives, until Ctrl+C"
try "console $kit --follow" "a kit's console output, cached then live"
try "console $kit --send hi --echo" "type on its console; the echo shows as output"
try "--json targets" "the list for scripts (docs/vesta-ctrl.md)"
try "server start" "keep a server running between commands"
if $started_here; then
  step "Stopping the server the tour started (start one with 'server start' to keep it)"
  trap - EXIT
  show server stop
fi
