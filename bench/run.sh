#!/bin/bash
# Builds and runs the benchmark in a private world, everything on one CPU, and
# prints tables, in Markdown; some minutes. One round (-r 1) is a trial of the
# benchmark itself, some 100 s. It fails when a figure is missing.
#
#   bench/run.sh [-o FILE] [-r ROUNDS] [-b BUILD_FOLDER] [-a TPG]
#
# TPG is another build of the agent, measured in turns with this one.
set -eu -o pipefail

cd "$(dirname "$0")/.."
rounds=5 out=/dev/null build=$PWD/build-bench another=

# Repeats a test until it holds.
await() {
	for _ in {1..100}; do
		! "$@" || return 0
		sleep 0.1
	done
	echo "bench: in vain: $*" >&2
	exit 1
}

# Another build beside this one: it has a /tmp of its own, a folder of this one, with the same
# daemons in it, and is the other kind of board. So the two register nothing alike.
start_another() {
	mkdir /tmp/other
	cp -r /tmp/conf /tmp/libbench-card-other.so "$build/tpg-other" /tmp/other
	await [ -S /tmp/.uevgend_svr15 ]
	ln /tmp/.devm_svr /tmp/.uevgend_svr* /tmp/other
	BASE_BOARD=3101KX unshare --mount bash -c \
		'mount --bind /tmp/other /tmp && exec /tmp/tpg-other' >/tmp/tpg-other.log 2>&1 &
	subjects+=($!)
	await [ -S /tmp/other/.tpg_svr ]
}

measure() {
	local SNMPCONFPATH=/tmp/conf MIBS='' BASE_BOARD=3100KX
	export SNMPCONFPATH MIBS BASE_BOARD
	mkdir /tmp/conf
	echo 'agentxPingInterval 1' >/tmp/conf/card_agentx.conf
	cp "$build"/bench/libbench-card-*.so /tmp
	for slot in $(seq -w 15); do
		mkdir /mnt/flash0/cards/{big,small,other}_slot"$slot"
	done
	cat >/tmp/conf/snmpd.conf <<-END
		rwcommunity public
		master agentx
		agentXSocket tcp:127.0.0.1:705
		agentXTimeout 12
		agentXRetries 0
		trap2sink 127.0.0.1:1162 public
		pass_persist .1.3.6.1.4.1.32473.100.5 $build/bench-pass
	END
	PATH=$PATH:/usr/sbin
	snmpd -f -Lf /tmp/snmpd.log -C -c /tmp/conf/snmpd.conf -p /tmp/snmpd.pid udp:127.0.0.1:1161 &
	local master=$! subjects=()
	"$build/bench-daemon" &
	await grep -qs 'NET-SNMP version' /tmp/snmpd.log
	"$build/tpg" >/tmp/tpg.log 2>&1 &
	subjects+=($!)
	for mode in limit live iterator; do
		"$build/bench-subagent" $mode &
		subjects+=($!)
	done
	await [ -S /tmp/.tpg_svr ]
	subjects+=("$master")
	[ -z "$another" ] || start_another
	sleep 1
	"$build/bench-manager" "$rounds" "${subjects[@]}"
}

if [ "${1:-}" = --inside ]; then
	rounds=$2 build=$3 another=$4
	measure
	exit
fi
while getopts o:r:b:a: option; do
	case $option in
	o) case $OPTARG in /*) out=$OPTARG ;; *) out=$OLDPWD/$OPTARG ;; esac ;;
	r) rounds=$OPTARG ;;
	b) case $OPTARG in /*) build=$OPTARG ;; *) build=$OLDPWD/$OPTARG ;; esac ;;
	a) case $OPTARG in /*) another=$OPTARG ;; *) another=$OLDPWD/$OPTARG ;; esac ;;
	*) exit 2 ;;
	esac
done
cmake -S . -B "$build" -G Ninja -DTPG_BENCH=ON -DTPG_TESTS=OFF >/dev/null
cmake --build "$build" >&2
[ -z "$another" ] || cp "$another" "$build/tpg-other"
cpu=$(($(nproc) - 1))
{
	echo "$(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -1), CPU $cpu of $(nproc)," \
		"Linux $(uname -r), $rounds rounds, load before: $(cut -d' ' -f1 /proc/loadavg)"
	echo
	timeout 1800 taskset -c $cpu scripts/world.sh bench/run.sh --inside "$rounds" "$build" "$another"
} | tee "$out"
