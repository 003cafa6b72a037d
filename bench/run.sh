#!/bin/bash
# Builds and runs the benchmark in a private world, everything on one CPU, and
# prints a table, in Markdown; some minutes.
#
#   bench/run.sh [-o FILE] [-r ROUNDS] [-b BUILD_FOLDER]
set -eu

cd "$(dirname "$0")/.."
rounds=5 out=/dev/null build=build-bench

measure() {
	local SNMPCONFPATH=/tmp/conf MIBS='' BASE_BOARD=3100KX
	export SNMPCONFPATH MIBS BASE_BOARD
	mkdir /tmp/conf
	echo 'agentxPingInterval 1' >/tmp/conf/card_agentx.conf
	cp "$build"/bench/libbench-card-*.so /tmp
	for slot in $(seq -w 15); do
		mkdir "/mnt/flash0/cards/big_slot$slot" "/mnt/flash0/cards/small_slot$slot"
	done
	cat >/tmp/conf/snmpd.conf <<-END
		rocommunity public
		master agentx
		agentXSocket tcp:127.0.0.1:705
		agentXTimeout 12
		agentXRetries 0
		trap2sink 127.0.0.1:1162 public
		pass_persist .1.3.6.1.4.1.32473.100.5 $PWD/$build/bench-pass
	END
	PATH=$PATH:/usr/sbin
	snmpd -f -Lf /tmp/snmpd.log -C -c /tmp/conf/snmpd.conf -p /tmp/snmpd.pid udp:127.0.0.1:1161 &
	local master=$! subjects=()
	"$build/bench-daemon" &
	until grep -q 'NET-SNMP version' /tmp/snmpd.log; do sleep 0.1; done 2>/dev/null
	"$build/tpg" >/tmp/tpg.log 2>&1 &
	subjects+=($!)
	for mode in limit live iterator; do
		"$build/bench-subagent" $mode &
		subjects+=($!)
	done
	until [ -S /tmp/.tpg_svr ]; do sleep 0.1; done
	sleep 1
	"$build/bench-manager" "$rounds" "${subjects[@]}" "$master"
}

if [ "${1:-}" = --inside ]; then
	rounds=$2 build=$3
	measure
	exit
fi
while getopts o:r:b: option; do
	case $option in
	o) case $OPTARG in /*) out=$OPTARG ;; *) out=$OLDPWD/$OPTARG ;; esac ;;
	r) rounds=$OPTARG ;;
	b) build=$OPTARG ;;
	*) exit 2 ;;
	esac
done
cmake -S . -B "$build" -G Ninja -DTPG_BENCH=ON -DTPG_TESTS=OFF >/dev/null
cmake --build "$build" >&2
cpu=$(($(nproc) - 1))
{
	echo "$(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -1), CPU $cpu of $(nproc)," \
		"Linux $(uname -r), $rounds rounds, load before: $(cut -d' ' -f1 /proc/loadavg)"
	echo
	timeout 900 taskset -c $cpu scripts/world.sh bench/run.sh --inside "$rounds" "$build"
} | tee "$out"
