#!/bin/bash
# Builds everything for the controller board (32-bit big-endian PowerPC) and runs all tests with
# the board's programs in the emulator, against the host's own master agent and tools.
#
#   scripts/board.sh [CTEST-OPTION...]        for instance: scripts/board.sh -R Registry
#
# The libraries come from scripts/board-sysroot.sh, which names the variables it obeys.
# Exit status: 0 passed, 1 failed; not run ("board: not run: REASON"): 3 the libraries' sources
# cannot be fetched, 4 packages of the host are missing.
set -u

top=$(cd "$(dirname "$0")/.." && pwd)
cache=$(realpath -m "${TPG_BOARD_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tpg-board}")
jobs=${TPG_BOARD_JOBS:-$(nproc)}
sysroot=$cache/sysroot
build=$top/build-board
tools=powerpc-linux-gnu

say() { echo "board: $*"; }

failed() {
	say "failed: $*"
	exit 1
}

prepare_sysroot() {
	local status=0
	"$top/scripts/board-sysroot.sh" || status=$?
	case $status in
	0) ;;
	3 | 4) exit $status ;; # the reason has been printed
	*) failed "no libraries to build with" ;;
	esac
}

build_programs() {
	local begin=$SECONDS log=$build/board-build.log
	mkdir -p "$build"
	if (cd "$top" && cmake --preset board -DTPG_BOARD_SYSROOT="$sysroot" &&
		cmake --build "$build" -j "$jobs") >"$log" 2>&1; then
		say "programs: $((SECONDS - begin)) s"
	else
		grep -E -A 5 'error|Error|FAILED' "$log" | head -n 40
		failed "the programs do not build, see $log"
	fi
}

# The tests put TPG_RUNNER in front of the programs of the board that they start. The libraries'
# place is an option of the emulator: in the environment, native children would obey it too.
run_tests() { # CTEST-OPTION...
	unset LD_LIBRARY_PATH QEMU_LD_PREFIX
	ulimit -c 0 # the emulator writes core files of its own
	TPG_RUNNER="qemu-ppc-static -L $sysroot" ctest --test-dir "$build" --output-on-failure \
		--no-tests=error -j "$jobs" "$@" 2>&1 | tee "$build/board-tests.log"
	return "${PIPESTATUS[0]}"
}

report_file_type() { # PROGRAM
	say "$1: $($tools-readelf -h "$build/$1" |
		sed -nE 's/^ *(Class|Data|Type|Machine): +//p' | paste -s -d , | sed 's/,/, /g')"
}

report_size() { # PROGRAM
	local stripped=$build/$1.stripped
	$tools-strip -o "$stripped" "$build/$1"
	say "$1: $(stat -c %s "$stripped") bytes stripped, $($tools-size "$stripped" |
		awk 'NR == 2 { print $1 " text, " $2 " data, " $3 " bss" }') (libraries are shared)"
	rm -f "$stripped"
}

report() {
	local log=$build/board-tests.log
	report_file_type tpg
	report_file_type tpg-chassis
	report_size tpg
	say "$(grep -cE ' Passed +[0-9.]+ sec' "$log") tests passed," \
		"$(grep -cE '\*\*\*(Failed|Timeout|Not Run|Exception)' "$log") failed," \
		"$(grep -cE '\*\*\*Skipped' "$log") skipped, $SECONDS s in all"
}

prepare_sysroot
build_programs
run_tests "$@"
status=$?
report
[ $status = 0 ] || failed "some tests, see $build/board-tests.log"
say "passed"
