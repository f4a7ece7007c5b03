#!/bin/sh
# Generates the Python stubs that client.py uses. Needs protobuf-compiler and protobuf-compiler-grpc.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$here/../..
out=${1:-$here/stubs}
mkdir -p "$out"
cd "$root"
protoc -I platform/klrpc/proto -I schema --python_out="$out" --grpc_out="$out" \
  --plugin=protoc-gen-grpc="$(command -v grpc_python_plugin)" \
  klrpc/v1/transport.proto klrpc/v1/pubsub.proto common/v1/status.proto example/v1/rpc_test.proto player/v1/player.proto
# The topics are written once, in C++.
sed -nE 's/^inline constexpr char k(.*)Topic\[\] = ("[^"]*");.*/\1 = \2/p' schema/player/v1/topics.h |
  sed -E 's/([a-z])([A-Z])/\1_\2/g; s/^[^ ]*/\U&/' >"$out/topics.py"
