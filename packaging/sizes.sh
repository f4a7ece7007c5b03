#!/usr/bin/env bash
# sizes.sh BUILD: prints a table of the sizes in KiB of every program and library that BUILD installs, as built and
# stripped.
set -euo pipefail
build=$1
case "$(readelf -h "$build/bin/vextool" | sed -n 's/^ *Machine: *//p')" in
  AArch64) machine=arm64 strip=aarch64-linux-gnu-strip ;;
  *) machine=$(dpkg --print-architecture) strip=strip ;;
esac
copy=$(mktemp)
trap 'rm -f "$copy"' EXIT

kib() { echo $((($(stat -Lc %s "$1") + 1023) / 1024)); }

printf '| %-24s | %9s | %9s |\n|%s|%s|%s|\n' "$machine" "built KiB" "stripped" "$(printf -- '-%.0s' {1..26})" "----------:" "----------:"
for name in bin/vextool bin/vexctl lib/libklbase.so lib/libklrpc.so bin/encd bin/playd bin/sysconfig bin/make_sample_clip \
            lib/libvextool_schema.a lib/libvextool_core.a lib/libvextool_apisdk.a lib/libvextool_rpcservice.a \
            lib/libvextool_envctl.a; do
  [ -e "$build/$name" ] || continue
  cp -L "$build/$name" "$copy"
  case "$name" in
    *.a) "$strip" --strip-debug "$copy" ;;
    *) "$strip" "$copy" ;;
  esac
  printf '| %-24s | %9d | %9d |\n' "${name##*/}" "$(kib "$build/$name")" "$(kib "$copy")"
done
