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
