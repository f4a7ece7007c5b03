# shellcheck shell=bash
# Sourced by ./vex: says how far a long step is, as tests/progress.py does for tests/run.py. On a terminal it's one line
# that is written again and again, elsewhere a plain line at most every ten seconds. Nothing of it stays on a terminal
# when the step is done.

progress_every_s=10
progress_next=0  # when the next plain line may come, in $SECONDS
progress_stands=

progress_has_terminal() { [ -t 2 ] && [ "${TERM:-dumb}" != dumb ]; }

progress_width() {
  local size
  size=$(stty size <&2 2>/dev/null) || size="24 80"
  [ "${size#* }" -gt 1 ] || size="24 80"  # a serial line doesn't tell its width
  echo $((${size#* } - 1))
}

# progress TEXT...: what is done at the moment.
progress() {
  local text="vex: $*"
  if progress_has_terminal; then
    progress_columns=${progress_columns:-$(progress_width)}
    printf '\r\033[K%s' "${text:0:progress_columns}" >&2
    progress_stands=1
  elif ((SECONDS >= progress_next)); then
    printf '%s\n' "$text" >&2
    progress_next=$((SECONDS + progress_every_s))
  fi
}

# Makes room for other output, or for what comes after the step.
progress_clear() {
  [ -z "$progress_stands" ] || printf '\r\033[K' >&2
  progress_stands=
}

# left SINCE DONE ALL: ", about 3 min left", if the rest goes on like what was done since SINCE (in $SECONDS); nothing as
# long as that says little.
left() {
  local elapsed=$((SECONDS - $1)) seconds
  ((elapsed >= 3 && $2 > 0 && $2 * 20 >= $3)) || return 0
  seconds=$((elapsed * ($3 - $2) / $2))
  if ((seconds < 55)); then
    echo ", about $((seconds / 5 * 5 + 5)) s left"
  else
    echo ", about $(((seconds + 30) / 60)) min left"
  fi
}
