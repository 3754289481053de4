#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test twice: plain, and with AddressSanitizer and
# UndefinedBehaviorSanitizer. Ends with a summary; exit status 0 only when all passed.
set -euo pipefail
cd "$(dirname "$0")/.."
export QT_QPA_PLATFORM=offscreen
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

began=$SECONDS
results=()
failed=0

run_step() { # NAME COMMAND...
  local name=$1 start=$SECONDS status=0
  shift
  echo
  echo "=== $name"
  "$@" </dev/null || status=$?
  if [ $status -eq 0 ]; then
    results+=("passed  $name ($((SECONDS - start)) s)")
  else
    results+=("FAILED  $name ($((SECONDS - start)) s, status $status)")
    failed=1
  fi
  return $status
}

build() { # PRESET
  cmake --preset "$1" >/dev/null && cmake --build --preset "$1" -- -j"$(nproc)" --quiet
}

tests() { # PRESET
  ctest --preset "$1" -j2 --output-on-failure --no-tests=error
}

if run_step "set-up" scripts/setup.sh test; then
  for preset in release asan; do
    run_step "build ($preset)" build "$preset" && run_step "tests ($preset)" tests "$preset" || true
  done
fi

echo
echo "=== summary, $((SECONDS - began)) s"
printf '%s\n' "${results[@]}"
[ $failed -eq 0 ] && echo "All tests passed." || echo "There were failures."
exit $failed
