# The demo's world: what runs in it, and how to talk to it. Sourced by the tour
# and by the shell behind it; runs inside scripts/world.sh.
# shellcheck shell=bash

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
address=127.0.0.1:1161
agent_log=/tmp/tpg.log
traps=/tmp/traps.log
chassis_in=/tmp/chassis
chassis_out=/tmp/chassis.out
patience=10 # seconds that anything may take
export MIBS='' # all names as numbers
export SNMPCONFPATH=$top/packaging
export SNMP_PERSISTENT_DIR=/var/lib/snmp

# wait_for COMMAND...: until it succeeds, or patience ends.
wait_for() {
	local deadline=$((SECONDS + patience))
	until "$@"; do
		[ $SECONDS -lt $deadline ] || return 1
		sleep 0.02
	done
}

# OIDs are given without the common part in front; whole ones are taken, too.
enterprise=1.3.6.1.4.1.32473
whole() { # OID
	local oid=${1#.}
	case "$oid." in
	1.3.6.*) echo "$oid" ;;
	*) echo "$enterprise.$oid" ;;
	esac
}

# wants COUNT WORDS ARGUMENT...: whether there are so many; else says what is expected.
wants() {
	local count=$1 words=$2
	shift 2
	[ $# != "$count" ] || return 0
	echo "usage: ${FUNCNAME[1]} $words; $enterprise is put in front of an OID such as 2.10.1" >&2
	return 1
}

# by_name COMMAND...: with the cards' module in /tmp/mibs, beside what it builds on.
by_name() {
	MIBS=LINE2-MIB:SNMPv2-MIB MIBDIRS=/tmp/mibs:$top/scripts/demo/mibs "$@"
}

walk() { # OID
	wants 1 OID "$@" && snmpbulkwalk -v2c -c public -On -t 8 -r 0 "$address" "$(whole "$1")"
}
get() { # OID
	wants 1 OID "$@" && snmpget -v2c -c public -On -t 8 -r 0 "$address" "$(whole "$1")"
}
put() { # OID TYPE VALUE
	wants 3 "OID TYPE VALUE" "$@" &&
		snmpset -v2c -c private -On -t 8 -r 0 "$address" "$(whole "$1")" "$2" "$3"
}

# chassis COMMAND...: one command to the simulator, and its answer. A word with
# anything but letters, digits and a few signs goes in the simulator's quotes.
chassis() {
	local before word line=
	for word; do
		case $word in
		\"*\") ;; # has them already
		*[!A-Za-z0-9_.:=-]* | '')
			word=${word//\\/\\\\}
			word=\"${word//\"/\\\"}\"
			;;
		esac
		line+="$word "
	done
	before=$(wc -l <"$chassis_out")
	printf '%s\n' "$line" >"$chassis_in"
	wait_for answered "$before" || return 1
	tail -n +$((before + 1)) "$chassis_out"
	tail -n 1 "$chassis_out" | grep -q '^ok'
}

answered() { # LINES-BEFORE
	tail -n +$(($1 + 1)) "$chassis_out" | grep -qE '^(ok|error)'
}

# A library as a card brings it: the document is a static object in it. Without
# a document it is a library that has none.
build_library() { # PRODUCT [DOCUMENT]
	local source=/tmp/cards/$1.c
	mkdir -p /tmp/cards
	{
		echo "int ${1}_card = 1;"
		[ -z "${2:-}" ] || {
			echo "static char jsonmib_$1[] __attribute__((used)) = {"
			od -An -v -t x1 "$2" | sed 's/ \(..\)/0x\1,/g'
			echo "};"
		}
	} >"$source"
	gcc -shared -fPIC -o "/tmp/cards/libmib$1.so" "$source"
}

start_master() {
	cat >/tmp/snmpd.conf <<-END
		rocommunity public
		rwcommunity private
		trap2sink 127.0.0.1:1162 public
		trap2sink 127.0.0.1:1163 public
	END
	echo "authCommunity log public" >/tmp/snmptrapd.conf
	snmptrapd -f -n -On -Lf "$traps" -C -c /tmp/snmptrapd.conf udp:127.0.0.1:1162 &
	snmpd -f -Lf /tmp/snmpd.log -C -c "/tmp/snmpd.conf,$top/packaging/snmpd-agentx.conf" \
		-I -smux,mteTrigger,mteTriggerConf "udp:$address" &
	wait_for grep -qs 'NET-SNMP version' /tmp/snmpd.log &&
		wait_for grep -qs 'NET-SNMP version' "$traps"
}

start_agent() {
	BASE_BOARD=3100KX "$top/build/tpg" >/tmp/tpg.out 2>"$agent_log" &
	wait_for test -S /tmp/.tpg_svr
}

start_chassis() { # SCENARIO
	mkfifo "$chassis_in"
	exec 9<>"$chassis_in" # so that the simulator's input never ends
	"$top/build/tpg-chassis" "$1" <"$chassis_in" >"$chassis_out" 2>&1 &
	wait_for grep -qs '^ready' "$chassis_out"
}
