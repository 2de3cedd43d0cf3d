#!/usr/bin/env bash
# Installs what the build needs, builds, and runs every test: the release build first, then
# the readers under libFuzzer (scripts/fuzz.sh; skip it with MERIVANE_SKIP_FUZZ=1), then the
# AddressSanitizer/UndefinedBehaviorSanitizer build (skip it with MERIVANE_SKIP_ASAN=1), whose
# test summary closes the output.
set -euo pipefail
cd "$(dirname "$0")/.."
export QT_QPA_PLATFORM=offscreen

bash scripts/setup.sh release
ctest --test-dir build --output-on-failure -j "$(nproc)"

# The file readers under libFuzzer for a minute (skip with MERIVANE_SKIP_FUZZ=1).
# A finding fails the run at the end, after the sanitizer tests have had their say.
fuzz_status=0
if [ "${MERIVANE_SKIP_FUZZ:-0}" != "1" ]; then
  bash scripts/fuzz.sh || fuzz_status=$?
fi

if [ "${MERIVANE_SKIP_ASAN:-0}" != "1" ]; then
  bash scripts/setup.sh asan
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j "$(nproc)"
fi

if [ "$fuzz_status" != "0" ]; then
  echo "test.sh: the fuzz run found a failure (scripts/fuzz.sh exit $fuzz_status)" >&2
  exit "$fuzz_status"
fi
