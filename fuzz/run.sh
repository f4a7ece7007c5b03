#!/usr/bin/env bash
# Runs a built fuzz target: run.sh BUILD_FOLDER NAME [SECONDS]; without NAME it lists the targets. `./vex fuzz` builds
# first and calls this.
set -euo pipefail
fuzz=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

# The names, each with the first sentence of its source.
list() {
  local source name
  for source in "$fuzz"/*_fuzz.cc; do
    name=$(basename "$source" _fuzz.cc)
    printf '  %-13s %s\n' "$name" "$(sed -n '1,/^[^/]/{/^\/\//{s,^// ,,;p}}' "$source" | tr '\n' ' ' | sed 's/\. .*/./')"
  done
}

if [ $# -lt 2 ]; then
  list
  exit 0
fi
build=$1 name=$2 seconds=${3:-60}
if [ ! -f "$fuzz/${name}_fuzz.cc" ]; then
  printf "vex: there is no fuzz target '%s'; there are:\n" "$name" >&2
  list >&2
  exit 1
fi
case "$seconds" in
  '' | *[!0-9]*) printf "vex: '%s' is not a number of seconds\n" "$seconds" >&2; exit 1 ;;
esac

work=$build/fuzz-work/$name
generated=$fuzz/generated/$name  # in no build folder, so that the inputs outlive a new one
mkdir -p "$generated" "$work/found"
touch "$work/started"
dictionary=()
[ ! -f "$fuzz/$name.dict" ] || dictionary=("-dict=$fuzz/$name.dict")
status=0
"$build/bin/fuzz_$name" -max_total_time="$seconds" -max_len=2048 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
  "${dictionary[@]}" -artifact_prefix="$work/found/" "$generated" "$fuzz/corpus/$name" 2>"$work/log" || status=$?

executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log")
rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$work/log")
coverage=$(grep -aoE 'cov: [0-9]+ ft: [0-9]+ corp: [0-9]+' "$work/log" | tail -n 1 || true)
printf '%s: %s executions (%s per second), %s\n' "$name" "${executions:-?}" "${rate:-?}" "${coverage:-no coverage}"
[ "$status" -ne 0 ] || exit 0

found=$(find "$work/found" -type f -newer "$work/started" | head -n 1)
grep -aE -A 12 'this does not hold|runtime error:|ERROR: ' "$work/log" | head -n 30 >&2 || tail -n 20 "$work/log" >&2
cat >&2 <<END

vex: $name failed (all of its output: $work/log)
The input:        ${found:-none was kept}
To see it again:  $build/bin/fuzz_$name $found
To make it small: $build/bin/fuzz_$name -minimize_crash=1 -max_total_time=60 -exact_artifact_path=small $found
Then mend the fault, with a unit test that names it, and keep the small input under a name that tells of the fault:
  cp small $fuzz/corpus/$name/NAME_OF_THE_FAULT && git add $fuzz/corpus/$name
From then on ./vex test runs it (fuzz_corpus.$name).
END
exit 1
