#!/usr/bin/env bash
# test.sh BUILD [CTEST-ARG...]: runs the tests of an arm64 build on this machine, emulated: the unit tests, and sessions
# over telnet, sockets and terminals with the tool and scripted daemons.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$1
shift

# Not run, because:
without=(
  # they build programs for this machine, look at the source tree, or measure
  '^package\.' '^docs' '^hygiene' '^soak' '^e2e\.demo$'
  # they encode or play, in real time, with GStreamer plugins, of which arm64's aren't installed
  '^(encd|playd)_test\.'
  # it names a function by the program's memory map, in place of which the emulator shows its own
  '^vextool_test\.VextoolTest\.ACrashReportNamesTheFunction$'
)
plugins_needed=(
  test_set_qulity_reaches_the_running_encoder test_encd_killed_and_restarted_while_the_console_stays
  test_a_real_file_from_opening_to_its_end test_sigterm_of_the_player_while_it_plays
)
# The device's parts that need no plugin.
plugins_not_needed='^encd_test\.PacketQueue|^playd_test\.(Geometry|Pace|Worker)'

names=${plugins_needed[*]}
export PYTEST_ADDOPTS="-k 'not (${names// / or })'"
run() { "$here/emulated.py" ctest --test-dir "$build" --output-on-failure --no-tests="$1" -j "$(nproc)" --timeout 300 "${@:2}"; }
run error --exclude-regex "$(IFS='|'; echo "${without[*]}")" "$@"
[ $# -gt 0 ] || run error --tests-regex "$plugins_not_needed"
