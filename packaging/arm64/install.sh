#!/usr/bin/env bash
# install.sh: installs the packages that `./vex arm64` needs beside those of a native build: the cross compiler, the
# emulator and arm64's libraries. Does nothing when all are there; takes nothing away.
set -euo pipefail

tools=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user-static dpkg-dev)
# GStreamer's base libraries have a development package that installs for one architecture only: see gstreamer.sh.
libraries=(
  libgrpc++-dev libprotobuf-dev libabsl-dev libspdlog-dev libtelnet-dev libutf8proc-dev libcrypt-dev
  libprometheus-cpp-core1.0  # prometheus-cpp-dev installs for one architecture only; its headers are the same in all
  libgtest-dev libgmock-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-0 liborc-0.4-dev libnats-dev
)

die() { printf 'vex: %s\n' "$*" >&2; exit 1; }
as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
is_installed() { [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]; }

[ "$(dpkg --print-architecture)" = amd64 ] || die "arm64 is cross-built on amd64; here, use: ./vex build"

missing=()
for package in "${tools[@]}" "${libraries[@]/%/:arm64}"; do
  is_installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0
[ "$(id -u)" = 0 ] || command -v sudo >/dev/null || die "packages are missing and there is no sudo; as root run: dpkg --add-architecture arm64; apt-get update; apt-get install ${missing[*]}"
printf 'vex: installing %s\n' "${missing[*]}" >&2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
install() {
  dpkg --print-foreign-architectures | grep -qx arm64 || as_root dpkg --add-architecture arm64
  as_root apt-get -q update
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends --no-remove install "${missing[@]}"
}
if ! install </dev/null >"$log" 2>&1; then
  tail -n 25 "$log" >&2
  die "apt-get could not install: ${missing[*]} (its last lines stand above)"
fi
