#!/usr/bin/env bash
# Starts the backend on an example configuration for a couple of seconds and
# shows what it writes. Usage: tools/demo.sh <build directory>
set -euo pipefail

build=${1:?usage: tools/demo.sh <build directory>}
backend="$build/zeph_route_grass_valley"
[ -x "$backend" ] || { echo "no backend at $backend; run make build" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/router.cfg" <<'CFG'
# Example configuration: "name = value", one per line.
inputs = 16
outputs = 12
ip address = 127.0.0.1
port = 12345
CFG

echo "configuration $work/router.cfg:"
sed 's/^/  /' "$work/router.cfg"
echo "backend output for 2 s (standard error and records):"

# Standard input is a pipe that ends after 2 s: the end of the parent's input
# stops the backend with status 0. Its output goes through a pipe too, since
# the backend refuses regular files on its standard descriptors.
status=0
sleep 2 | "$backend" --file "$work/router.cfg" 2>&1 | sed 's/^/  /' || status=$?
echo "backend exited with status $status"
exit "$status"
