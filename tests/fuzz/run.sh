#!/bin/bash
# Builds the fuzzers and runs each of them (or those named) for SECONDS in a
# private world, two at a time. What they learn stays in build-fuzz/corpus;
# inputs that stop one are left in build-fuzz/findings, and the exit status
# is 1 then. Logs go to build-fuzz/log, or to FUZZ_LOGS.
#
#   tests/fuzz/run.sh SECONDS [client document reply extract control]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
build=$top/build-fuzz
logs=${FUZZ_LOGS:-$build/log}

# One step a line: the bytes that the fuzzer decodes, in octal; a zero ends the input.
# shellcheck disable=SC2059 # the variables are parts of formats
make_seeds() {
	local client=$build/seeds/client reply=$build/seeds/reply
	mkdir -p "$client" "$reply"
	local master='\2\2\20' second='\2\3\20' newer='\2\4\41' alarm='\4\2\0\3\0\0\0\15\0\0\0\2\0\0\0\1\4text'
	printf "$master$second$alarm"'\6\0' >"$client/family"
	printf "$master$second$newer$alarm"'\6\3\214\6\0' >"$client/takeover"
	printf "$master$second"'\3\212'"$alarm"'\5\0\0' >"$client/promotion"
	printf "$master"'\11\5\43\11\6\22\6\5\1\0' >"$client/fallback"
	# A card that failed is promoted, with what it had got in.
	printf '\2\5\43\2\6\20\2\4\61\3\214\0' >"$client/leftovers"
	printf '\1\3\0\10\0textless\1\1\5\4\0cut!\0\14not a header\0' >"$client/frames"
	printf '\2\1\20\4\1\0\1\0\0\0\4\0\0\0\5\2\0\10\6\0' >"$client/board"
	# A GET, a SET, time, the end, bytes, an answer, a part of one.
	local get='\0\4\0' set='\1\4\0' late='\2\62' answer='\6' part='\7'
	printf "$get$get$answer$set$answer$answer"'\0' >"$reply/answers"
	printf "$get$late$get$answer$answer$set$late$set$answer$answer"'\0' >"$reply/late"
	printf "$get$set$part$late$get\\3$get"'\4\4\1\2\3\4\0' >"$reply/parts"
}

fuzz_one() {
	local name=$1 seeds=$here/seeds/$1
	[ -d "$seeds" ] || seeds=$build/seeds/$1
	local options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
		-artifact_prefix="$build/findings/$name-")
	[ -z "${FUZZ_SEED:-}" ] || options+=(-seed="$FUZZ_SEED")
	case $name in
	client) options+=(-max_len=512 -len_control=0) ;;
	reply) options+=(-max_len=1024 -len_control=0) ;;
	document | extract) options+=(-max_len=8192 -dict="$here/json.dict") ;;
	esac
	mkdir -p "$build/corpus/$name"
	local status=0
	ASAN_OPTIONS=malloc_context_size=16:quarantine_size_mb=64 UBSAN_OPTIONS=print_stacktrace=1 \
		"$top/scripts/world.sh" "$build/fuzz_$name" "${options[@]}" \
		"$build/corpus/$name" "$seeds" >"$logs/$name.log" 2>&1 || status=$?
	local runs
	runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$logs/$name.log")
	if [ "$status" -ne 0 ]; then
		echo "$name: FINDING after ${runs:-0} executions, see $logs/$name.log"
		grep -aE '^SUMMARY:|ERROR: libFuzzer|Test unit written' "$logs/$name.log" || true
		return 1
	fi
	echo "$name: ${runs:-0} executions"
}

if [ "${1:-}" = --one ]; then
	seconds=$2
	fuzz_one "$3"
	exit
fi
seconds=${1:?"usage: $0 SECONDS [NAME...]"}
shift
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
	names=(client document reply extract control)
fi
cd "$top"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j 2
mkdir -p "$logs" "$build/findings"
make_seeds
printf '%s\n' "${names[@]}" | FUZZ_LOGS=$logs xargs -P 2 -I NAME "$here/run.sh" --one "$seconds" NAME || exit 1
echo "fuzz: no findings"
