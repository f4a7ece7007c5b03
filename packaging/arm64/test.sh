#!/usr/bin/env bash
# test.sh BUILD [CTEST-ARG...]: runs the tests of an arm64 build on this machine, emulated: the unit tests, and sessions
# over telnet, sockets and terminals with the tool and scripted daemons.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$1
shift

# Not run, because:
without=(
  # they look at this machine's own build or at the source tree
  '^package\.' '^packaging\.' '^docs' '^hygiene' '^soak' '^e2e\.demo$'
  # they play or encode in real time, with plugins of arm64 that aren't installed
  '^encd_test\.' '^playd_test\.'
  "$(grep -v '^#' "$here/not_emulated.txt" | cut -f1 | sed -e 's/\./\\./g' -e 's/.*/^&$/' | paste -sd '|')"
)
exec "$here/emulated.py" ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$(nproc)" --timeout 300 \
  --exclude-regex "$(IFS='|'; echo "${without[*]}")" "$@"
