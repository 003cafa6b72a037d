#!/bin/bash
# Shows what tpg does: installs what is missing, builds, and plays a chassis
# against a real master agent in a private world. Ends with status 1, naming
# the step, if a step does not show what it says.
#
#   scripts/demo.sh            the tour
#   scripts/demo.sh --shell    the tour, then a shell in its world
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
export PATH=$PATH:/usr/sbin:/sbin

case "${1:-}" in
"" | --shell) ;;
*)
	sed -n '2,/^set/s/^# \{0,1\}//p' "$0"
	[ "$1" = --help ] || exit 1
	exit 0
	;;
esac

"$top/scripts/deps.sh"
cd "$top"
echo "demo: building (build/demo-build.log)"
mkdir -p build
if ! { cmake --preset release &&
	cmake --build --preset release --parallel "$(nproc)" --target tpg tpg-chassis tpg-jsonmib; } \
	</dev/null >build/demo-build.log 2>&1; then
	tail -n 20 build/demo-build.log >&2
	echo "demo: step failed: build" >&2
	exit 1
fi
exec scripts/world.sh scripts/demo/tour.sh "$@"
