#!/usr/bin/env bash
# Installs what is missing, then holds the sources to their format, reads what has changed with clang-tidy, builds
# and runs every test twice (plain, and with AddressSanitizer and UndefinedBehaviorSanitizer) and each fuzz target
# for 20 s. Ends with a summary; exit status 0 only when all passed.
# usage: scripts/test.sh [--all]
#   --all  clang-tidy reads every source, not only what differs from the last commit of main
set -euo pipefail
cd "$(dirname "$0")/.."
all=0
case "${1:-}" in
  "") ;;
  --all) all=1 ;;
  *) sed -n '2,6s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac
# Builds in other directories of the same sources share what was compiled.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
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

sources() { git ls-files -- '*.cpp' '*.h'; }

changed() { # sources that differ from main's last commit; on main itself from the one before when nothing does
  local base=main
  git rev-parse -q --verify main >/dev/null || base=HEAD
  if git diff --quiet "$base" -- && git rev-parse -q --verify "$base~1" >/dev/null; then base=$base~1; fi
  git diff --name-only --diff-filter=d "$base" -- '*.cpp' ':!tests/fuzz'
}

format() { sources | xargs clang-format --dry-run -Werror; }

tidy() { # needs the compile commands of the release preset
  if [ $all = 1 ]; then git ls-files -- '*.cpp' ':!tests/fuzz'; else changed; fi |
    xargs -r -n 4 -P "$(nproc)" clang-tidy -p build/release --quiet
}

fuzz() {
  local target
  cmake -G Ninja -B build/fuzz -DSPEAKERD_FUZZ=ON -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ >/dev/null || return 1
  for target in tests/fuzz/*_fuzz.cpp; do
    target=$(basename "$target" .cpp)
    cmake --build build/fuzz --target "$target" -- --quiet || return 1
    mkdir -p "build/fuzz/found/$target"
    # Without leak detection: that needs a debugger's rights, which not every machine gives.
    build/fuzz/"$target" -max_total_time=20 -max_len=4096 -detect_leaks=0 -verbosity=0 -print_final_stats=1 \
      -artifact_prefix="build/fuzz/found/$target/" "build/fuzz/found/$target" "tests/fuzz/corpus/$target" 2>&1 |
      grep -E 'stat::number_of_executed_units|ERROR|SUMMARY|Test unit' | sed "s/^/$target: /"
    [ "${PIPESTATUS[0]}" -eq 0 ] || return 1
  done
}

if run_step "set-up" scripts/setup.sh test; then
  run_step "format" format || true
  for preset in release asan; do
    run_step "build ($preset)" build "$preset" && run_step "tests ($preset)" tests "$preset" || true
    [ $preset = asan ] || run_step "clang-tidy" tidy || true
  done
  run_step "fuzz targets" fuzz || true
fi

echo
echo "=== summary, $((SECONDS - began)) s"
printf '%s\n' "${results[@]}"
[ $failed -eq 0 ] && echo "All tests passed." || echo "There were failures."
exit $failed
