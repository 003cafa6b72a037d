#!/bin/bash
# Installs what is missing, builds everything and runs all tests.
#
#   scripts/test.sh [PRESET [CTEST-OPTION...]]
#
#   PRESET   release (the default), or asan: with the address and undefined
#            behaviour sanitizers
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
preset=${1:-release}
[ $# -eq 0 ] || shift
PATH=$PATH:/usr/sbin:/sbin

case "$preset" in
release | asan) ;;
*)
	echo "usage: scripts/test.sh [release|asan [CTEST-OPTION...]]" >&2
	exit 1
	;;
esac
"$top/scripts/deps.sh"
cd "$top"
cmake --preset "$preset"
cmake --build --preset "$preset" --parallel "$(nproc)"
# Most tests wait for most of their time.
exec ctest --preset "$preset" --output-on-failure --no-tests=error -j $((4 * $(nproc))) "$@"
