#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs each one for a
# bounded time, starting from its checked-in corpus (tests/fuzz/corpus/<name>)
# and with its token dictionary (tests/fuzz/<name>.dict) when there is one.
# Fails on any crash, leak or timeout; the input that caused it is left in
# build-fuzz/fuzz-artifacts/.
#   scripts/fuzz.sh [seconds-per-target]     default 20
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
dir=build-fuzz

echo "== $dir"
cmake -S . -B "$dir" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DOMBRY_FUZZ=ON -DOMBRY_WERROR=ON -DOMBRY_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" --target fuzz_all --parallel 2

mkdir -p "$dir/fuzz-artifacts"
status=0
for target in $(find "$dir/tests/fuzz" -maxdepth 1 -type f -name 'fuzz_*' -executable | sort); do
  name=${target##*/fuzz_}
  work="$dir/fuzz-corpus/$name"  # new inputs land here, not in the source tree
  mkdir -p "$work"
  corpora=("$work")
  [ -d "tests/fuzz/corpus/$name" ] && corpora+=("tests/fuzz/corpus/$name")
  options=()
  [ -f "tests/fuzz/$name.dict" ] && options+=("-dict=tests/fuzz/$name.dict")
  # What the network feeds (a pool's lines, API requests) is fuzzed at the
  # size a peer may send, within the memory a small rig has to spare. ASan's
  # quarantine of freed blocks (256 MB by default) is kept small there, so
  # that the limit measures what the code holds.
  quarantine=256
  case $name in
    json_rpc_reads | stratum_message | api_request) limits=(-rss_limit_mb=256 -max_len=1048576) quarantine=32 ;;
    *) limits=(-rss_limit_mb=2048 -max_len=32768) ;;
  esac
  log="$dir/fuzz-$name.log"
  if ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=$quarantine" \
      "$target" -max_total_time="$seconds" -timeout=10 "${limits[@]}" \
      -print_final_stats=1 -artifact_prefix="$dir/fuzz-artifacts/$name-" "${options[@]}" "${corpora[@]}" \
      >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz $name: ${runs:-?} executions in ${seconds} s, no crash, leak or timeout"
  else
    echo "fuzz $name: FAILED (log: $log)"
    tail -n 40 "$log"
    status=1
  fi
done
exit $status
