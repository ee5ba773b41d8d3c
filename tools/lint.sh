#!/usr/bin/env bash
# Static analysis of src/, tools/ and fuzz/: clang-tidy with the checks of
# .clang-tidy, then cppcheck (warning, performance, portability). The files
# come from the compilation databases of the dev and fuzz builds, so every
# file the builds compile is checked, and with the flags it is built with.
# Prints each finding; exits 1 when there is any.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset dev >/dev/null
cmake --preset fuzz >/dev/null

# "database<TAB>file" for every translation unit of ours.
units=$(python3 - <<'PY'
import json, os
root = os.getcwd()
seen = set()
for build in ("build/dev", "build/fuzz"):
    for entry in json.load(open(os.path.join(build, "compile_commands.json"))):
        rel = os.path.relpath(entry["file"], root)
        if rel.split("/")[0] in ("src", "tools", "fuzz") and rel not in seen:
            seen.add(rel)
            print(build + "\t" + rel)
PY
)

status=0
echo "clang-tidy: $(wc -l <<<"$units") files"
# Two at a time: the machine is shared.
if ! printf '%s\n' "$units" |
    xargs -P 2 -L 1 sh -c 'clang-tidy --quiet -p "$0" "$1" 2>/dev/null' >build/clang-tidy.log; then
  status=1
fi
grep -E '(warning|error):' build/clang-tidy.log | sort -u || true

echo "cppcheck:"
if ! cppcheck --quiet --error-exitcode=1 --inline-suppr --std=c++20 --language=c++ \
    --enable=warning,performance,portability --suppress=missingIncludeSystem \
    -I src -I tools -I fuzz -D_GNU_SOURCE -j 2 src tools fuzz; then
  status=1
fi

[ "$status" = 0 ] && echo "lint: no findings"
exit "$status"
