#!/usr/bin/env bash
# check.sh FOLDER: looks at the arm64 packages in FOLDER, and runs the tool out of its package, emulated.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
die() { printf 'check.sh: %s\n' "$*" >&2; exit 1; }

for name in vextool vextool-device vextool-dev vextool-ctl vextool-link; do
  package=$(echo "$folder/${name}"_*_arm64.deb)
  [ "$(dpkg-deb -f "$package" Architecture)" = arm64 ] || die "$package is not for arm64"
  dpkg-deb -x "$package" "$work/$name"
  find "$work/$name" -type f -exec sh -c 'head -c 4 "$1" | grep -q ELF' sh {} \; -print >"$work/programs"
  while read -r program; do
    readelf -h "$program" | grep -q 'Machine: *AArch64' || die "$name: $program is for another machine"
    ! readelf -d "$program" | grep -qE 'RPATH|RUNPATH' || die "$name: $program has a run path"
  done <"$work/programs"
  echo "$name: $(wc -l <"$work/programs") programs and libraries for AArch64"
done
dpkg-deb -f "$folder"/vextool_*_arm64.deb Depends | grep -q libgrpc29 || die "vextool depends on no gRPC"

# In a network of its own, because the tool's address is the machine's.
answer=$(echo 'core show version' | KLBASE_LOG_FILE=$work/log LD_LIBRARY_PATH=$work/vextool/usr/lib/aarch64-linux-gnu \
  "$here/emulated.py" unshare --map-root-user --net "$work/vextool/usr/bin/vextool" --local_console --cli_port=0 2>"$work/errors") ||
  { cat "$work/errors" >&2; die "the packed tool does not run"; }
grep -q 'git-version: v' <<<"$answer" || die "the packed tool printed: $answer"
echo "vextool, emulated:" $answer
