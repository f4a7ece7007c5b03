#!/usr/bin/env bash
# as_user.sh ROOT BUILD COMMAND...: root runs COMMAND as an ordinary user, who is made for it and removed afterwards. The user
# gets a copy of the tree and of its build folder, which takes the tree's place in a mount space of its own, with an empty /tmp
# that is another file system. BUILD/Testing/results.xml of the copy becomes BUILD/Testing/results-of-the-user.xml. Where
# such a user or place can't be made, it says so and ends well.
set -euo pipefail
root=$1 build=$2
shift 2
# Processes and mounts end with the first of these processes.
alone=(unshare --mount --propagation private --pid --fork --kill-child --mount-proc)

clean_up() {
  rm -rf "$scratch"
  ! getent passwd "$user" >/dev/null || userdel "$user" || printf 'vex: the user %s could not be removed\n' "$user" >&2
}

give_up() {
  printf 'vex: no tests as an ordinary user: %s\n' "$(tail -n 1 "$scratch/errors")" >&2
  exit 0
}

make_user() { useradd --system --user-group --no-create-home --home-dir "$scratch/home" --shell /usr/sbin/nologin "$user"; }

# copy_tree: without the builds of other presets.
copy_tree() {
  local entry
  chmod 755 "$scratch" && mkdir "$scratch/tree" "$scratch/home" || return
  shopt -s dotglob nullglob
  for entry in "$root"/*; do
    [[ $entry == "$root"/build* && $entry != "$build" ]] || cp -a "$entry" "$scratch/tree/" || return
  done
  chown -R "$user:" "$scratch/tree" "$scratch/home"
}

as_user() {
  setpriv --reuid="$user" --regid="$user" --init-groups env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$scratch/home" \
    USER="$user" LOGNAME="$user" TERM="${TERM:-dumb}" LANG="${LANG:-C.UTF-8}" "$@"
}

# take_place: folders on the way to the tree that only root may enter, as its home is, are hidden.
take_place() {
  local way="" part parts
  mount -t tmpfs -o mode=1777 tmpfs /tmp || return
  IFS=/ read -ra parts <<<"${root#/}"
  for part in "${parts[@]}"; do
    way+=/$part
    [ -e "$way" ] || break
    as_user test -x "$way" || { mount -t tmpfs -o mode=755 tmpfs "$way" || return; }
  done
  mkdir -p "$root" && mount --bind "$scratch/tree" "$root"
}

cannot=120  # the status of a mount space that can't be made

run_inside() {
  take_place 2>"$scratch/errors" || exit "$cannot"
  cd "$root"
  as_user "$@"
}

run_outside() {
  local status=0 results
  { make_user && copy_tree && "${alone[@]}" true; } 2>"$scratch/errors" || give_up
  "${alone[@]}" "$0" "$root" "$build" --inside "$user" "$scratch" "$@" || status=$?
  [ "$status" != "$cannot" ] || give_up
  results=$scratch/tree/${build#"$root"/}/Testing/results.xml
  [ ! -f "$results" ] || cp "$results" "$build/Testing/results-of-the-user.xml"
  return "$status"
}

if [ "$1" = --inside ]; then
  user=$2 scratch=$3
  shift 3
  run_inside "$@"
else
  user=vextest$$ scratch=$(mktemp -d /var/tmp/vextest.XXXXXX)
  trap clean_up EXIT
  run_outside "$@"
fi
