#!/usr/bin/env bash
# Runs every fuzz target built in BUILD_DIR (the fuzz preset's build/fuzz):
# first it replays the kept regression inputs under fuzz/regressions/<target>/,
# then it fuzzes for SECONDS from a scratch corpus under BUILD_DIR, seeded from
# fuzz/corpus/<target>/. Nothing is written into the source tree; crashing
# inputs land in BUILD_DIR/fuzz-work/<target>/artifacts/.
#
#   fuzz/run.sh BUILD_DIR [SECONDS] [TARGET...]
set -uo pipefail

build=${1:?usage: fuzz/run.sh BUILD_DIR [SECONDS] [TARGET...]}
seconds=${2:-60}
shift $(( $# < 2 ? $# : 2 ))
here=$(cd "$(dirname "$0")" && pwd)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(receive parent_record record_text config panel_model)

passed=0
failed=0
for t in "${targets[@]}"; do
  bin="$build/fuzz/fuzz_$t"
  work="$build/fuzz-work/$t"
  log="$work/fuzz.log"
  mkdir -p "$work/corpus" "$work/artifacts"
  if [ ! -x "$bin" ]; then
    echo "fuzz $t: $bin is not built"
    failed=$((failed + 1))
    continue
  fi

  # Files given as arguments are each run once; any failure stops the target.
  regressions=("$here/regressions/$t"/*)
  if [ -e "${regressions[0]}" ]; then
    if ! "$bin" "${regressions[@]}" >"$log" 2>&1; then
      echo "fuzz $t: a regression input fails again"
      tail -n 40 "$log"
      failed=$((failed + 1))
      continue
    fi
    echo "fuzz $t: ${#regressions[@]} regression inputs pass"
  fi

  cp -n "$here/corpus/$t"/* "$work/corpus/" 2>/dev/null || true
  dict=()
  [ -f "$here/dict/$t.dict" ] && dict=(-dict="$here/dict/$t.dict")
  if "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$work/artifacts/" "${dict[@]}" "$work/corpus" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz $t: ${runs:-?} runs in ${seconds} s, corpus $(ls "$work/corpus" | wc -l) inputs, no failure"
    passed=$((passed + 1))
  else
    echo "fuzz $t: FAILED; log $log, input in $work/artifacts/"
    tail -n 60 "$log"
    failed=$((failed + 1))
  fi
done

echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
