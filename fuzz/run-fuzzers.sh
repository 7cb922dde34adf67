#!/usr/bin/env bash
# Builds the libFuzzer versions of the fuzz targets with clang (AddressSanitizer
# and UndefinedBehaviorSanitizer included) and fuzzes each one for a bounded time.
#
#   fuzz/run-fuzzers.sh SECONDS [TARGET...]
#
# SECONDS is the time per target; the default targets are all of them. Each
# target starts from a copy of its committed seed corpus (fuzz/corpus/<target>),
# so new inputs land in the build directory, never in the repository. A crash,
# a leak or a failed property stops that target and the script exits 1 after
# printing the input; make it a regression input by copying it into
# fuzz/corpus/<target>/ under a name that says what it caught: the replay test
# then runs it in every build.
#
# Environment: QUOR_FUZZ_BUILD_DIR (default build-fuzz), CXX_FUZZ (default
# clang++-14, else clang++), QUOR_FUZZ_JOBS (build jobs, default 2),
# QUOR_FUZZ_PARALLEL (targets fuzzed at once, default the number of cores).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:?usage: fuzz/run-fuzzers.sh SECONDS [TARGET...]}
shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(marker fingerprint version type_header tokenizer pack)

build=${QUOR_FUZZ_BUILD_DIR:-build-fuzz}
compiler=${CXX_FUZZ:-}
if [ -z "$compiler" ]; then
  compiler=$(command -v clang++-14 || command -v clang++ || true)
fi
if [ -z "$compiler" ]; then
  echo "run-fuzzers: no clang++ found; the corpora are still replayed by ctest" >&2
  exit 0
fi

if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER="$compiler" -DQUOR_BUILD_FUZZERS=ON -DQUOR_BUILD_TESTS=OFF \
    -DQUOR_BUILD_TOOLS=OFF -DQUOR_BUILD_BENCHMARKS=OFF >/dev/null
fi
cmake --build "$build" -j "${QUOR_FUZZ_JOBS:-2}" --target "${targets[@]/#/quor_fuzz_}"

# Fuzzes one target; its libFuzzer log goes to fuzz-work/<target>.log.
fuzz_one() {
  local target=$1
  local corpus="$build/fuzz-work/corpus/$target"
  local artifacts="$build/fuzz-work/artifacts/$target/"
  mkdir -p "$corpus" "$artifacts"
  cp -n fuzz/corpus/"$target"/* "$corpus"/ 2>/dev/null || true
  "$build/fuzz/quor_fuzz_$target" -max_total_time="$seconds" -timeout=10 \
    -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
    -artifact_prefix="$artifacts" "$corpus" 2>"$build/fuzz-work/$target.log"
}

# Each fuzzer runs in one process on one core, so as many run at once as there
# are cores (QUOR_FUZZ_PARALLEL): every target still gets its whole time.
parallel=${QUOR_FUZZ_PARALLEL:-$(nproc)}
failed=()
declare -A running=()
# Reports the target whose fuzzer `pid` ended with `status`.
finish_one() {
  local pid=$1 status=$2 target=${running[$1]}
  unset "running[$pid]"
  if [ "$status" -ne 0 ]; then
    failed+=("$target")
    tail -40 "$build/fuzz-work/$target.log" >&2
    echo "run-fuzzers: $target failed; inputs in $build/fuzz-work/artifacts/$target/:" >&2
    ls -l "$build/fuzz-work/artifacts/$target/" >&2
  else
    grep -E 'stat::number_of_executed_units|stat::new_units_added' \
      "$build/fuzz-work/$target.log" | sed "s/^/  $target /"
  fi
}
mkdir -p "$build/fuzz-work"
for target in "${targets[@]}"; do
  while [ ${#running[@]} -ge "$parallel" ]; do
    status=0
    wait -n -p done_pid || status=$?
    finish_one "$done_pid" "$status"
  done
  echo "== fuzzing $target for ${seconds}s"
  fuzz_one "$target" &
  running[$!]=$target
done
while [ ${#running[@]} -gt 0 ]; do
  status=0
  wait -n -p done_pid || status=$?
  finish_one "$done_pid" "$status"
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "run-fuzzers: failures in: ${failed[*]}" >&2
  exit 1
fi
echo "run-fuzzers: ${#targets[@]} targets fuzzed for ${seconds}s each, no failure"
