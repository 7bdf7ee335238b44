#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) in build-fuzz and runs each for a bounded
# time on a scratch copy of its seed corpus, so the committed corpus never grows. Fails when
# any target finds a crash, a sanitizer report, a leak, a time-out or an escaping exception;
# the reproducer is kept in build-fuzz/findings/<target>/.
#
#   scripts/fuzz.sh [seconds-per-target] [target...]    (default: 10 s, every target)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh clang-14 libclang-rt-14-dev

seconds=${1:-10}
shift || true
all_targets=(book cart order switchboard convert_date_time language url book_file server_api opds
  bitmap)
targets=("${@:-${all_targets[@]}}")

# Longest input each target is given: long enough for deep nesting (the JSON reader stops at
# 1000 levels; each corpus has a deep seed) and for a whole HTTP answer, short enough to keep
# executions fast.
max_len() {
  case $1 in
    convert_date_time | book_file | url) echo 256 ;;
    bitmap) echo 8192 ;;  # headers, a palette and a few rows of pixels
    *) echo 4096 ;;
  esac
}

CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DVISTREL_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
build_targets=()
for t in "${targets[@]}"; do build_targets+=(--target "${t}_fuzzer"); done
cmake --build build-fuzz -j"$(nproc)" "${build_targets[@]}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=()
for t in "${targets[@]}"; do
  work=$(mktemp -d)
  cp -r "fuzz/corpus/$t/." "$work/"
  findings="build-fuzz/findings/$t"
  mkdir -p "$findings"
  echo "== fuzz $t for ${seconds}s"
  if ! "build-fuzz/fuzz/${t}_fuzzer" "$work" -max_total_time="$seconds" \
      -max_len="$(max_len "$t")" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/" >"build-fuzz/findings/$t.log" 2>&1; then
    failed+=("$t")
    tail -n 60 "build-fuzz/findings/$t.log"
  fi
  grep -E '^stat::number_of_executed_units|^Done' "build-fuzz/findings/$t.log" || true
  rm -rf "$work"
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz targets failed: ${failed[*]} (inputs in build-fuzz/findings/)"
  exit 1
fi
echo "all fuzz targets passed"
