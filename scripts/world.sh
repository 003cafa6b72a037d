#!/bin/bash
# Runs a command in a private world: its own /tmp, /mnt, /var and /run, its own
# loopback network and processes. Needs no root, touches nothing of the host,
# and ends with the command. This checkout (or the folders in WORLD_KEEP, a
# list separated by colons) stays visible where it is.
#
#   scripts/world.sh COMMAND [ARGUMENT...]
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)

if [ "${1:-}" != --inside ]; then
	exec unshare --user --map-root-user --mount --net --pid --fork --mount-proc --kill-child \
		bash "$0" --inside "$@"
fi
shift

mount --make-rprivate /
declare -A kept
IFS=: read -r -a keep <<<"$top:${WORLD_KEEP:-}"
for folder in "${keep[@]}"; do
	case "$folder" in
	/tmp/* | /mnt/* | /var/* | /run/*)
		exec {fd}<"$folder"
		kept[$folder]=$fd
		;;
	esac
done
for place in /tmp /mnt /var /run; do
	mount -t tmpfs -o mode=1777 tmpfs "$place"
done
for folder in "${!kept[@]}"; do
	mkdir -p "$folder"
	# The folder is hidden now; its open descriptor still leads to it.
	mount --no-canonicalize --rbind "/proc/self/fd/${kept[$folder]}" "$folder"
done
mkdir -p /var/lib/snmp /var/run /var/tmp /var/log /mnt/flash0/cards /var/built_in_jsonmib
ip link set lo up
cd "$top"
exec "$@"
