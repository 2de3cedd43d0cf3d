#!/usr/bin/env bash
# Builds the libFuzzer targets of the file readers with clang (ASan + UBSan) in build-fuzz/
# and runs each one for SECONDS (default 7; ten targets, about a minute in all), starting
# from the seeds in fuzz/corpus/<target>/. New inputs collect in build-fuzz/corpus/<target>/,
# crashes in build-fuzz/artifacts/<target>/. Exits 1 when any target found a failure.
#   scripts/fuzz.sh            the short run that scripts/test.sh makes
#   scripts/fuzz.sh 600        ten minutes per target
#   FUZZ_TARGETS="fuzz_png fuzz_obj" scripts/fuzz.sh 60
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-7}"
bash scripts/setup.sh --deps >/dev/null

dir=build-fuzz
if [ ! -f "$dir/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMERIVANE_FUZZ=ON \
    -DMERIVANE_BUILD_TESTS=OFF -DMERIVANE_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$dir" --target fuzzers -j "$(nproc)"

targets="${FUZZ_TARGETS:-fuzz_nifti fuzz_nrrd fuzz_metaimage fuzz_png fuzz_ply fuzz_stl fuzz_obj fuzz_csv fuzz_properties fuzz_dicom}"
export ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1
export LSAN_OPTIONS="suppressions=$PWD/fuzz/lsan.supp"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=()
for t in $targets; do
  mkdir -p "$dir/corpus/$t" "$dir/artifacts/$t"
  log="$dir/artifacts/$t/last-run.log"
  # The readers must refuse a header that asks for gigabytes before allocating them, so a
  # tight memory limit is part of the test.
  if "$dir/bin/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -malloc_limit_mb=512 \
      -max_len=65536 -print_final_stats=1 -artifact_prefix="$dir/artifacts/$t/" \
      "$dir/corpus/$t" "fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
    echo "fuzz: $t: $runs runs, no failure"
  else
    echo "fuzz: $t: FAILED (see $log)"
    grep -E 'ERROR|SUMMARY|Test unit written' "$log" | head -5 || true
    failed+=("$t")
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failures in ${failed[*]}"
  exit 1
fi
