#!/bin/sh
# device.sh NAME ADDRESS: sshd of a device, in namespaces of its own. Its network card is there when a line comes on standard
# input. Ends when it is killed.
set -e
hostname "$1"
mount -t tmpfs -o mode=755 tmpfs /run
mkdir -m 755 /run/sshd
install -d -o vextool -g vextool -m 750 /run/vextool
read -r _
ip link set lo up
ip link set eth0 up
ip address add "$2/16" dev eth0
exec /usr/sbin/sshd -D -e
