#!/bin/sh
# demo_mount.sh PROGRAMS SETTINGS COMMAND [WORD...]: runs a command that finds the reference device's settings tools where a
# device has them.
#
# The command gets a view of its own of the file system, in which /usr/kelo/bin holds sysconfig, from the folder PROGRAMS, and
# fw_printenv, and /usr/kelo/etc is the folder SETTINGS. Nobody else sees any of it, and it goes when the command ends. A machine
# that doesn't allow such a view runs the command without. The command replaces this script, so its process id, terminal and
# status are those of the script.
set -eu

here=$(cd "$(dirname "$0")" && pwd)

# Fills the folder `stage` with a /usr like this machine's, in which /usr/kelo is ours: nothing can be added to the real one.
fill() {
  for entry in /usr/*; do
    target=$stage/${entry##*/}
    if [ "$entry" = /usr/kelo ]; then
      continue
    elif [ -h "$entry" ]; then
      cp -P "$entry" "$target" || return
    elif [ -d "$entry" ]; then
      mkdir "$target" && mount --rbind "$entry" "$target" || return
    fi
  done
  mkdir -p "$stage/kelo/bin" "$stage/kelo/etc" && cp -L "$1/sysconfig" "$here/fw_printenv" "$stage/kelo/bin/" &&
    mount --bind "$2" "$stage/kelo/etc"
}

if [ "$1" = --inside ]; then
  shift
  stage=$(mktemp -d "$2/.usr.XXXXXX")
  if mount -t tmpfs -o mode=755 demo "$stage"; then
    if ! { fill "$1" "$2" && mount --rbind "$stage" /usr; }; then
      echo "demo_mount: the settings tools are not where a device has them" >&2
    fi
    umount -l "$stage"
  fi
  rmdir "$stage"
  shift 2
  # What an ordinary user needed to mount, the command doesn't.
  exec setpriv --inh-caps=-all --ambient-caps=-all -- "$@"
fi

programs=$(cd "$1" && pwd) folder=$2
shift 2
if ! { mkdir -p "$folder" && [ -w "$folder" ]; } 2>/dev/null; then
  echo "demo_mount: $folder can't be written to; the settings tools are not where a device has them" >&2
  exec "$@"
fi
settings=$(cd "$folder" && pwd)
[ -f "$settings/fw_env.conf" ] || cp "$here/fw_env.conf" "$settings/"
export PATH="/usr/kelo/bin:$PATH"
for own in "--mount" "--mount --user --map-current-user --keep-caps"; do
  if unshare $own true 2>/dev/null; then
    exec unshare $own -- "$here/demo_mount.sh" --inside "$programs" "$settings" "$@"
  fi
done
exec "$@"
