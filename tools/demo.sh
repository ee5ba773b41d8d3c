#!/usr/bin/env bash
# A short scripted parent session against the bundled switcher emulator: the
# reports after synchronisation, a route change added and flushed, a rename on
# the switcher, and the reports that come back through status polling.
# Usage: tools/demo.sh <build directory>
set -euo pipefail

build=${1:?usage: tools/demo.sh <build directory>}
backend="$build/zeph_route_grass_valley"
emulator="$build/tools/switcher_emulator"
for exe in "$backend" "$emulator"; do
  [ -x "$exe" ] || { echo "no $exe; run make build" >&2; exit 1; }
done

work=$(mktemp -d)
emu_pid=""
backend_pid=""
cleanup() {
  [ -n "$backend_pid" ] && kill "$backend_pid" 2>/dev/null || true
  [ -n "$emu_pid" ] && kill "$emu_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

say() { printf '\n== %s\n' "$*"; }
# Writes one parent record (lines given as arguments) and shows it.
send() {
  local line
  for line in "$@"; do printf '  parent -> %s\n' "$line"; done
  printf '%s\n' "$@" "" >&3
}

say "Starting the switcher emulator (8 destinations, 8 sources)"
mkfifo "$work/emu.ctl" "$work/parent.in"
"$emulator" --port 0 --verbose --outputs 8 --inputs 8 --model "Demo Router" \
  --firmware-type V5 --firmware-revision 2.1 <"$work/emu.ctl" >"$work/emu.out" \
  2> >(cat >"$work/emu.log") &
emu_pid=$!
exec 4>"$work/emu.ctl"
for _ in $(seq 50); do [ -s "$work/emu.out" ] && break; sleep 0.1; done
port=$(head -n 1 "$work/emu.out" | awk '{print $NF}')
echo "  $(head -n 1 "$work/emu.out")"

cat >"$work/router.cfg" <<CFG
# Example configuration: "name = value", one per line.
ip address = 127.0.0.1
port = $port
CFG
say "Starting the backend on this configuration"
sed 's/^/  /' "$work/router.cfg"
# Records the backend writes to its parent are shown as they arrive; its
# diagnostics go to a log (the backend refuses regular files on its standard
# descriptors, so both go through pipes).
"$backend" --file "$work/router.cfg" <"$work/parent.in" \
  > >(sed -u 's/^/  parent <- /') 2> >(cat >"$work/backend.log") &
backend_pid=$!
exec 3>"$work/parent.in"

say "After synchronisation: info, routing, inputs and outputs reports"
sleep 2

say "The parent routes input 5 to output 2 (zero-based) and flushes"
send "*COMMAND=route output" "*TYPE=command" "*ID=1" "queue=add" "from input=5" "to output=2"
send "*COMMAND=route output" "*TYPE=command" "*ID=2" "queue=flush"
sleep 1.5
echo "  switcher: $(grep -m1 'recv TI' "$work/emu.log")  (destination 3, source 6: positions + base 1)"

say "Someone renames destination 1 on the switcher; status polling picks it up"
echo "rename output 1 Studio A" >&4
sleep 1.5

say "The parent asks for the status of every output"
send "*COMMAND=report" "*TYPE=command" "*ID=3" "what=outputs"
sleep 1.5

say "The parent closes its end of the channel; the backend ends"
exec 3>&-
status=0
wait "$backend_pid" || status=$?
backend_pid=""
echo "  backend exited with status $status"

say "The switcher's view: frames received (status polling repeats BK F, BK f, QD)"
grep '^recv' "$work/emu.log" | awk '!seen[$0]++' | sed 's/^/  switcher: /'
say "The backend's diagnostics (first lines)"
grep -v -e 'Send to router' -e 'Router: MSG' "$work/backend.log" | head -n 14 | sed 's/^/  /'
exit "$status"
