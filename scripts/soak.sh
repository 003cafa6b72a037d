#!/bin/bash
# Runs tpg for a while in a chassis that never comes to rest: cards come, go, take over, raise
# faults, are read and written while daemons hang, die and return and the master agent is killed.
# One daemon hangs and one is slow at any time; no value of a card that has no part in this may be
# lost. At the end every slot must answer correctly, memory and descriptors must be where they were
# after the first minute, and every Error and Warn line must have an explanation. -v runs tpg under
# valgrind, which must not find an invalid access.
#
#   scripts/soak.sh [-v] [SECONDS [BUILD-FOLDER]]      default 600, build
#
# Exit status: 0 passed, 1 failed.
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
tool=
if [ "${1:-}" = -v ]; then
	tool=valgrind
	shift
fi
build=$(realpath -m "${2:-$top/build}")
export PATH=$PATH:/usr/sbin:/sbin

"$top/scripts/deps.sh" python3 $tool
if [ $# -lt 2 ]; then
	cd "$top"
	cmake --preset release >/dev/null
	cmake --build --preset release --parallel "$(nproc)" --target tpg tpg-chassis >/dev/null
fi
WORLD_KEEP=$build exec "$top/scripts/world.sh" python3 "$top/scripts/soak.py" "$build" "${1:-600}" $tool
