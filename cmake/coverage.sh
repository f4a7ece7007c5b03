#!/usr/bin/env bash
# Runs all tests of a coverage build and prints which part of the lines they ran: first the tool and its libraries,
# then the reference device. Called by `./vex coverage` when the build stands.
#
#   coverage.sh BUILD FLOOR [CTEST_ARG...]     FLOOR: the least percentage of the tool's lines, else the status is 1
set -euo pipefail

build=$1 floor=$2
shift 2
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

# Tests, their helpers, and generated code (in the build folder) are not part of the code that ships.
not_counted=(-e '.*_test\.cc' -e '(.*/)?testing/.*' -e 'device/playd/testing\.h' -e '.*/test_main\.cc')

# report NAME PATTERN OPTION...: one table and its pages, of the files whose path fits the pattern.
report() {
  local name=$1 pattern=$2
  shift 2
  mkdir -p "$build/coverage/$name"
  gcovr --root . -a "$build/coverage/lines.json" --filter "$pattern" "${not_counted[@]}" \
    --txt "$build/coverage/$name.txt" --html-details "$build/coverage/$name/index.html" --html-title "$name" \
    --json-summary "$build/coverage/$name.json" "$@"
}

# Counts of an earlier run belong to older code.
find "$build" -name '*.gcda' -delete
tests=0
ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$(nproc)" "$@" || tests=$?

mkdir -p "$build/coverage"
gcovr --root . --object-directory "$build" "$build" -j "$(nproc)" --filter '(platform|modules|example|device)/' \
  "${not_counted[@]}" --json "$build/coverage/lines.json"
floor_met=0
report device 'device/'
report tool '(platform|modules|example)/' --fail-under-line "$floor" 2>"$build/coverage/errors" || floor_met=$?
[ "$floor_met" = 0 ] || [ "$floor_met" = 2 ] || { cat "$build/coverage/errors" >&2; exit 1; }  # 2: below the floor

for name in device tool; do
  printf '\nLines of %s that the tests run (pages: %s)\n' "$name" "$build/coverage/$name/index.html"
  sed -n '/^File/,$p' "$build/coverage/$name.txt"
done
[ "$tests" = 0 ] || { echo "coverage: tests failed (above), so these figures are not whole" >&2; exit 1; }
[ "$floor_met" = 0 ] || { echo "coverage: the tool's lines are below the floor of $floor %" >&2; exit 1; }
