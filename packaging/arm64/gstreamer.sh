#!/usr/bin/env bash
# gstreamer.sh FOLDER: makes link names and .pc files in FOLDER, for linking against arm64's GStreamer base libraries.
# Debian's arm64 package that has them can't be installed beside the amd64 one; the headers are the same
# files in both, and the libraries themselves (libgstreamer-plugins-base1.0-0:arm64) do install.
set -euo pipefail
libraries=/usr/lib/aarch64-linux-gnu
pc=/usr/lib/x86_64-linux-gnu/pkgconfig
folder=$1

rm -rf "$folder"
mkdir -p "$folder/pkgconfig"
folder=$(cd "$folder" && pwd)
for name in app video base audio tag pbutils; do
  [ -f "$pc/gstreamer-$name-1.0.pc" ] && [ -f "$libraries/libgst$name-1.0.so.0" ] || continue
  [ ! -f "$libraries/pkgconfig/gstreamer-$name-1.0.pc" ] || continue
  ln -s "$libraries/libgst$name-1.0.so.0" "$folder/libgst$name-1.0.so"
  sed -e "s|^libdir=.*|libdir=$folder|" "$pc/gstreamer-$name-1.0.pc" >"$folder/pkgconfig/gstreamer-$name-1.0.pc"
done
[ -f "$folder/pkgconfig/gstreamer-app-1.0.pc" ] || { echo "gstreamer.sh: the arm64 GStreamer base libraries are not installed" >&2; exit 1; }
