#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset: clang, ASan, UBSan) and runs each
# one over its seed corpus in fuzz/corpus/<target>.
#
#   scripts/run-fuzz.sh                         # 20000 executions per target
#   scripts/run-fuzz.sh -max_total_time=600     # ten minutes per target
#   scripts/run-fuzz.sh -runs=1000000 KelMsgXmlFuzzer
#
# Arguments starting with "-" are passed to every target in place of the
# default -runs=20000; other arguments name the targets to run (default: all).
# Inputs found along the way go to build/fuzz/corpus/<target>, crashing inputs
# to build/fuzz/artifacts/, each target's output to build/fuzz/logs/.
set -euo pipefail
cd "$(dirname "$0")/.."

flags=()
targets=()
for argument in "$@"; do
  case "$argument" in
    -*) flags+=("$argument") ;;
    *) targets+=("$argument") ;;
  esac
done
[ ${#flags[@]} -gt 0 ] || flags=(-runs=20000)
if [ ${#targets[@]} -eq 0 ]; then
  for corpus in fuzz/corpus/*/; do targets+=("$(basename "$corpus")"); done
fi

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]}"

mkdir -p build/fuzz/artifacts build/fuzz/logs
failed=0
for target in "${targets[@]}"; do
  mkdir -p "build/fuzz/corpus/$target"
  log="build/fuzz/logs/$target.log"
  if build/fuzz/fuzz/"$target" "${flags[@]}" -artifact_prefix="build/fuzz/artifacts/$target-" \
       "build/fuzz/corpus/$target" "fuzz/corpus/$target" >"$log" 2>&1; then
    echo "fuzz $target: $(grep -E '^Done [0-9]+ runs' "$log" || tail -n 1 "$log")"
  else
    echo "fuzz $target: FAILED"
    tail -n 60 "$log"
    failed=1
  fi
done
exit "$failed"
