#!/usr/bin/env bats
# Opens, seeks and closes again and again, and waits for what each step must bring about.
#
#     ROUNDS=100 bats --formatter junit examples/soak.bats >report.xml
#
# CLIP is the file to play, the demo's unless it is set; vexctl finds the tool, or KLBASE_CONSOLE_SOCKET names its socket.

setup() {
  CLIP=${CLIP:-build/demo/clip.mp4}
  vexctl -q playd DeleteUplayer soak || true  # of a run that was broken off
  vexctl playd CreateUplayer soak
}

teardown() {
  vexctl -q playd DeleteUplayer soak || true
}

# One session for each round: a wait looks back to when the line before it began.
round() {
  vexctl --within 20 \
    -c "playd OpenMediaOfUplayer soak 1 1 1 0 0 0 \"$CLIP\" 0 0 640 360 0" \
    -c "wait layer/result_repor play_state=1 fail play_state=5 within 10" \
    -c "playd SetSeekOfUplayer soak $1" \
    -c "wait layer/get_seek_of_uplayer seek_ms>=$1 within 10" \
    -c "playd CloseMediaOfUplayer soak 0"
}

@test "open, seek and close" {
  for ((i = 1; i <= ${ROUNDS:-3}; i++)); do
    round $((i % 15 * 1000 + 1000)) || { echo "round $i failed"; return 1; }
  done
}

@test "a player that is not there is refused, with a reason" {
  run vexctl playd SetSeekOfUplayer nobody 1000
  [ "$status" -eq 1 ]
  [[ $output == *"vexctl: refused: "* ]]
}

@test "a line that is wrong is told from one that is refused" {
  run vexctl playd SetSeekOfUplayer soak soon
  [ "$status" -eq 2 ]
}
