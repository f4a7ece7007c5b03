#!/usr/bin/env bash
# make.sh [--version V] [--output FOLDER] BUILD: makes the .deb packages of the build in BUILD, native or for another
# architecture. Needs neither root nor network.
set -euo pipefail
export LC_ALL=C.UTF-8
umask 022
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

die() { printf 'make.sh: %s\n' "$*" >&2; exit 1; }

version=
output=
while [ $# -gt 1 ]; do
  case "$1" in
    --version) version=$2; shift 2 ;;
    --output) output=$2; shift 2 ;;
    *) die "unknown word '$1'; use: make.sh [--version V] [--output FOLDER] BUILD" ;;
  esac
done
[ $# = 1 ] && [ -f "$1/CMakeCache.txt" ] || die "the last word must be a build folder"
build=$(cd "$1" && pwd)

cached() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }

[ -n "$version" ] || version=$(cached CMAKE_PROJECT_VERSION)
[ -n "$output" ] || output=$build/packages
[ "$(cached VEX_SANITIZE)" = "" ] || die "$build is a sanitizer build; packages are made of a release build"
libdir=$(cached CMAKE_INSTALL_LIBDIR)
# Packed files have the release's date, so that the same build gives the same packages.
SOURCE_DATE_EPOCH=$(date -u -d "$(cached VEX_BUILD_DATE)" +%s)
export SOURCE_DATE_EPOCH

machine=$(readelf -h "$build/bin/vextool" | sed -n 's/^ *Machine: *//p')
case "$machine" in
  *X86-64*) arch=amd64 ;;
  AArch64) arch=arm64 ;;
  *) die "$build/bin/vextool is for '$machine'; packages are made for amd64 and arm64" ;;
esac
native=$(dpkg --print-architecture)
triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
tool() { if [ "$arch" = "$native" ]; then echo "$1"; else echo "$triplet-$1"; fi; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
all=$work/all
tree=$work/debian  # one folder for each package, as Debian's helpers lay them out
mkdir -p "$tree"

# take PACKAGE FOLDER FILE...: moves installed files (patterns below the root) to FOLDER of a package.
take() {
  local package=$1 folder=$2 file
  shift 2
  mkdir -p "$tree/$package/$folder"
  for file in "$@"; do
    # shellcheck disable=SC2086  # patterns
    mv $all/$file "$tree/$package/$folder/"
  done
}

put() { install -D -m "$1" "$2" "$3"; }

# compress SOURCE TARGET: with no date or name inside.
compress() {
  mkdir -p "$(dirname "$2")"
  gzip -9nc "$1" >"$2"
}

install_all() {
  DESTDIR=$all cmake --install "$build" --prefix /usr --strip >"$work/install.log" 2>&1 ||
    { tail -n 20 "$work/install.log" >&2; die "installing $build failed"; }
  install -m 755 "$build/bin/make_sample_clip" "$all/usr/bin/"
  "$(tool strip)" "$all/usr/bin/make_sample_clip"
  # The libraries are where the loader looks anyway.
  printf 'foreach(file %s)\n  file(RPATH_REMOVE FILE ${file})\nendforeach()\n' \
    "$(find "$all/usr/bin" "$all/usr/$libdir" -type f \( -perm -100 -o -name '*.so.*' \) | tr '\n' ' ')" >"$work/rpath.cmake"
  cmake -P "$work/rpath.cmake" >"$work/rpath.log" 2>&1 || { cat "$work/rpath.log" >&2; die "removing run paths failed"; }
  find "$all/usr/$libdir" -name '*.so.*' -type f -exec chmod 644 {} +
  local archive
  for archive in "$all/usr/$libdir"/*.a; do
    "$(tool strip)" --strip-debug --remove-section=.comment --enable-deterministic-archives "$archive"
  done
}

lay_out() {
  take vextool usr/bin "usr/bin/vextool"
  take vextool "usr/$libdir" "usr/$libdir/*.so.*"
  put 644 "$here/debian/vextool.service" "$tree/vextool/lib/systemd/system/vextool.service"
  put 644 "$here/debian/vextool.default" "$tree/vextool/etc/default/vextool"
  put 644 "$here/completion/vextool" "$tree/vextool/usr/share/bash-completion/completions/vextool"

  take vextool-device usr/bin "usr/bin/encd" "usr/bin/playd" "usr/bin/make_sample_clip"
  # The console's settings commands run it there.
  take vextool-device usr/kelo/bin "usr/bin/sysconfig"
  mkdir "$tree/vextool-device/usr/kelo/etc"
  put 644 "$here/debian/encd.service" "$tree/vextool-device/lib/systemd/system/encd.service"
  put 644 "$here/debian/playd.service" "$tree/vextool-device/lib/systemd/system/playd.service"
  put 644 "$here/debian/vextool-device.default" "$tree/vextool-device/etc/default/vextool-device"

  take vextool-ctl usr/bin "usr/bin/vexctl"
  put 644 "$here/completion/vexctl" "$tree/vextool-ctl/usr/share/bash-completion/completions/vexctl"

  take vextool-link usr/bin "usr/bin/vexlink"
  put 644 "$here/debian/vexlink.service" "$tree/vextool-link/lib/systemd/system/vexlink.service"
  put 644 "$here/debian/vexlink.default" "$tree/vextool-link/etc/default/vexlink"

  put 644 "$here/../python/vextool.py" "$tree/python3-vextool/usr/lib/python3/dist-packages/vextool.py"

  local file
  while IFS= read -r file; do
    put 644 "$here/../fleet/$file" "$tree/vextool-fleet/usr/share/vextool-fleet/$file"
  done < <(cd "$here/../fleet" && find . -type f)

  take vextool-dev "usr/$libdir" "usr/$libdir/*.so" "usr/$libdir/*.a" "usr/$libdir/cmake"
  take vextool-dev usr "usr/include"
  take vextool-dev usr/share "usr/share/klrpc"

  local left
  left=$(find "$all" -type f -o -type l)
  [ -z "$left" ] || die "installed, but in no package: $left"
}

documents() {
  local package page
  {
    printf 'vextool (%s) unstable; urgency=medium\n\n  * See /usr/share/doc/vextool/CHANGELOG.md.gz.\n\n' "$version"
    printf ' -- %s  %s\n' "$maintainer" "$(date -u -R -d "@$SOURCE_DATE_EPOCH")"
  } >"$work/changelog"
  for package in "${packages[@]}"; do
    compress "$work/changelog" "$tree/$package/usr/share/doc/$package/changelog.gz"
    put 644 "$here/debian/copyright" "$tree/$package/usr/share/doc/$package/copyright"
    [ ! -f "$here/debian/$package.lintian-overrides" ] ||
      put 644 "$here/debian/$package.lintian-overrides" "$tree/$package/usr/share/lintian/overrides/$package"
  done
  compress "$here/../CHANGELOG.md" "$tree/vextool/usr/share/doc/vextool/CHANGELOG.md.gz"
  compress "$here/../docs/guide.md" "$tree/vextool/usr/share/doc/vextool/guide.md.gz"
  compress "$here/../docs/operations.md" "$tree/vextool/usr/share/doc/vextool/operations.md.gz"
  compress "$here/../docs/control.md" "$tree/vextool/usr/share/doc/vextool/control.md.gz"
  compress "$here/../docs/fleet.md" "$tree/vextool-fleet/usr/share/doc/vextool-fleet/fleet.md.gz"
  sed -e "s/@VERSION@/$version/" -e "s/@DATE@/$(date -u -d "@$SOURCE_DATE_EPOCH" +%Y-%m-%d)/" "$here/man/vextool.1" >"$work/vextool.1"
  compress "$work/vextool.1" "$tree/vextool/usr/share/man/man1/vextool.1.gz"
  for page in encd playd make_sample_clip; do
    sed -e "s/@VERSION@/$version/" -e "s/@DATE@/$(date -u -d "@$SOURCE_DATE_EPOCH" +%Y-%m-%d)/" "$here/man/$page.1" >"$work/page"
    compress "$work/page" "$tree/vextool-device/usr/share/man/man1/$page.1.gz"
  done
  for page in ctl/vexctl link/vexlink; do
    sed -e "s/@VERSION@/$version/" -e "s/@DATE@/$(date -u -d "@$SOURCE_DATE_EPOCH" +%Y-%m-%d)/" "$here/../$page.1" >"$work/page"
    compress "$work/page" "$tree/vextool-${page%/*}/usr/share/man/man1/${page#*/}.1.gz"
  done
}

# The packages of the libraries that a package's programs are linked with.
library_depends() {
  local package=$1 files
  mapfile -t files < <(find "$tree/$package" -type f \( -path '*/bin/*' -o -name '*.so.*' \))
  (cd "$work" && DEB_HOST_ARCH=$arch dpkg-shlibdeps -O -xvextool -l"$tree/vextool/usr/$libdir" "${files[@]}" 2>"$work/shlibdeps.log") |
    sed -n 's/^shlibs:Depends=//p' || { cat "$work/shlibdeps.log" >&2; die "dpkg-shlibdeps failed for $package"; }
}

# finish PACKAGE DEPENDS [ARCHITECTURE]: control files and the archive.
finish() {
  local package=$1 depends=$2 arch=${3:-$arch} control=$tree/$1/DEBIAN script
  mkdir -p "$control"
  {
    printf 'Package: %s\nVersion: %s\nArchitecture: %s\nMaintainer: %s\n' "$package" "$version" "$arch" "$maintainer"
    printf 'Installed-Size: %s\n' "$(du -sk --apparent-size --exclude=DEBIAN "$tree/$package" | cut -f1)"
    printf 'Depends: %s\n' "$depends"
    cat "$here/debian/$package.control"
  } >"$control/control"
  for script in postinst prerm postrm; do
    [ ! -f "$here/debian/$package.$script" ] || put 755 "$here/debian/$package.$script" "$control/$script"
  done
  (cd "$tree/$package" && find . -type f ! -path './DEBIAN/*' -printf '%P\0' | sort -z | xargs -0 md5sum) >"$control/md5sums"
  if [ -d "$tree/$package/etc" ]; then
    (cd "$tree/$package" && find etc -type f -printf '/%p\n' | sort) >"$control/conffiles"
  fi
  find "$tree/$package" -newermt "@$SOURCE_DATE_EPOCH" -print0 | xargs -0r touch --no-dereference -d "@$SOURCE_DATE_EPOCH"
  dpkg-deb --root-owner-group -Zxz --build "$tree/$package" "$output/${package}_${version}_$arch.deb" >/dev/null
}

maintainer="${DEBFULLNAME:-vextool maintainers} <${DEBEMAIL:-maintainers@vextool.example}>"
# The part of a source package that dpkg-shlibdeps reads.
printf 'Source: vextool\nMaintainer: %s\n\nPackage: vextool\nArchitecture: any\n' "$maintainer" >"$tree/control"

packages=(vextool vextool-device vextool-dev vextool-ctl vextool-link vextool-fleet python3-vextool)

install_all
lay_out
documents
mkdir -p "$tree/vextool/DEBIAN" "$output"
printf 'libklbase 0 vextool (>= %s)\nlibklrpc 0 vextool (>= %s)\n' "$version" "$version" >"$tree/vextool/DEBIAN/shlibs"
printf 'activate-noawait ldconfig\n' >"$tree/vextool/DEBIAN/triggers"
rm -f "$output"/vextool{,-device,-dev,-ctl,-link}_*_"$arch".deb "$output"/{vextool-fleet,python3-vextool}_*_all.deb
finish vextool "adduser, $(library_depends vextool)"
finish vextool-device "vextool (= $version), gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, \
gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly, gstreamer1.0-libav, $(library_depends vextool-device)"
finish vextool-dev "vextool (= $version), libprotobuf-dev, libabsl-dev"
finish vextool-ctl "$(library_depends vextool-ctl)"
finish vextool-link "adduser, $(library_depends vextool-link)"
finish vextool-fleet openssh-client all
finish python3-vextool python3:any all
ls "$output"/vextool{,-device,-dev,-ctl,-link}_"${version}_$arch".deb "$output"/{vextool-fleet,python3-vextool}_"${version}_all.deb"
