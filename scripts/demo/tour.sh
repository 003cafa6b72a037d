#!/bin/bash
# The tour of scripts/demo.sh, inside a private world. Each step says what it
# shows, shows it, and checks it.
set -u

# As the first process of its world it has no signal action but its own.
trap 'exit 130' INT TERM

# shellcheck source=scripts/demo/world.sh
. "$(dirname "$0")/world.sh"

examples=$top/doc/examples
step=0
title=
shown=/tmp/shown

step() { # TITLE EXPLANATION
	step=$((step + 1))
	title=$1
	printf '\n%d. %s\n   %s\n' "$step" "$1" "$2"
}

fail() { # REASON
	{
		printf '\ndemo: step %d failed: %s: %s\n' "$step" "$title" "$1"
		for log in "$agent_log" "$traps" /tmp/snmpd.log "$chassis_out"; do
			[ ! -s "$log" ] || { echo "--- $log" && tail -n 8 "$log"; }
		done
	} >&2
	exit 1
}

# typed WORD...: the words as a reader has to type them.
typed() {
	local word line=
	for word; do
		case $word in
		*\'*) word=\"$word\" ;;
		*[!A-Za-z0-9_./:=-]*) word=\'$word\' ;;
		esac
		line+=" $word"
	done
	echo "   \$$line"
}

# show COMMAND...: runs it and shows it with its output, which expect looks at.
show() {
	typed "$@"
	"$@" >"$shown" 2>&1
	local status=$?
	sed 's/^/     /' "$shown"
	[ $status = 0 ] || fail "status $status of: $*"
}

# show_log PATTERN: the next line of the agent's log that matches.
show_log() {
	wait_for grep -qsE "$1" "$agent_log" || fail "no line in the agent's log: $1"
	grep -E "$1" "$agent_log" | tail -n 1 | sed 's/^/     /'
}

expect() { # PATTERN...
	local pattern
	for pattern in "$@"; do
		grep -qE "$pattern" "$shown" || fail "not shown: $pattern"
	done
}

expect_not() { # PATTERN
	! grep -qE "$1" "$shown" || fail "still there: $1"
}

expect_rows() { # COUNT
	[ "$(wc -l <"$shown")" = "$1" ] || fail "$(wc -l <"$shown") values instead of $1"
}

# show_trap SPECIFIC: waits for the card's trap of this number.
show_trap() {
	local trap_oid="\.1\.3\.6\.1\.6\.3\.1\.1\.4\.1\.0 = OID: \.1\.3\.6\.1\.4\.1\.32473\.2\.0\.$1\b"
	wait_for grep -qE "$trap_oid" "$traps" || fail "no trap $1 arrived"
	grep -E "$trap_oid" "$traps" | tail -n 1 | tr '\t' '\n' >"$shown"
	sed 's/^/     /' "$shown"
}

# shellcheck disable=SC2317 # called by wait_for
registered() { # COUNT: so many cards have been taken up by a master
	[ "$(grep -cE 'tpg_preload_send_trap_storage\([0-9]+\): master=' "$agent_log")" -ge "$1" ]
}

module=/tmp/mibs/LINE2-MIB.txt
make_module() {
	mkdir -p /tmp/mibs
	"$top/build/tpg-jsonmib" mib "$examples/line2.json" >$module
}

# A receiver that knows the module. It is there from the start: the master loses a trap after one
# that found nobody.
start_named_receiver() {
	make_module || return 1
	by_name snmptrapd -f -n -Lf /tmp/named.log -C --disableAuthorization=yes -F '%v\n' \
		"udp:${address%:*}:1163" &
	wait_for grep -qs 'NET-SNMP version' /tmp/named.log
}

start_world() {
	step "A chassis comes up" \
		"Master agent, trap receiver, tpg, and a simulated chassis with line cards in 5 and 7, a power supply in 12."
	build_library line2 "$examples/line2.json" || fail "gcc"
	build_library psu4 || fail "gcc"
	cp "$examples/psu4.json" /var/built_in_jsonmib/libmibpsu4.so.json
	cp "$examples"/*.json /tmp/cards
	sed -i 's|/var/built_in_jsonmib/|/tmp/cards/|' /tmp/cards/chassis.json
	mkdir -p /mnt/flash0/cards/LINE_slot0{5,7,9}
	start_named_receiver || fail "the second trap receiver does not start"
	start_master || fail "the master agent does not start"
	start_agent || fail "tpg does not start"
	start_chassis /tmp/cards/chassis.json || fail "the chassis does not start"
	wait_for registered 3 || fail "the cards are not registered"
	show_log 'Registered product line2:LINE'
	show_log 'Same/older version 1.2.100 on slot 7'
}

card_document() {
	step "A card's own document" \
		"tpg found it in the card's library; the rows are ports 1 and 2 of the slots 5 and 7."
	show_log 'Successfully find jsonmib symbol for product line2'
	show walk 2.10.1
	expect_rows 24
	expect '10\.1\.1\.4\.1\.5 = STRING: "uplink"' '10\.1\.1\.3\.2\.7 = INTEGER: 1$'
}

built_in_document() {
	step "A built-in document" \
		"The power supply's library has no document, so tpg took the copy in /var/built_in_jsonmib."
	show_log 'Found built-in jsonmib file at .*psu4'
	show walk 3.10.1
	expect_rows 12
	expect '10\.1\.1\.3\.1\.1\.12 = INTEGER: 12000'
}

write_value() {
	step "Writing to a card" \
		"A SET goes to the card at once, a GET asks it again; a value outside the document's range is refused."
	show put 2.10.1.1.4.2.5 s "to the roof"
	show get 2.10.1.1.4.2.5
	expect 'STRING: "to the roof"'
	show chassis get 5 103 1
	expect '^ok "?to the roof'
	typed put 2.10.1.1.2.2.5 i 401
	! put 2.10.1.1.2.2.5 i 401 >"$shown" 2>&1 || fail "401 was accepted"
	grep Reason "$shown" | sed 's/^/     /'
	expect 'wrongValue'
}

newer_card() {
	step "A newer card takes over" \
		"Slot 9 brings version 1.3.7 of the family; its document replaces the one of slot 5, the rows of all stay."
	show chassis plug 9
	show_log 'Registered new master based on slot 9'
	show_log 're-referencing .* slot_no 7 => .* slot_no 9'
	wait_for answers 2.10.1.1.2.1.9 || fail "the table did not come back"
	show walk 2.10.1.1.2
	expect_rows 6
	expect '2\.2\.5 = INTEGER: 100$' '2\.2\.9 = INTEGER: 400$'
}

# shellcheck disable=SC2317 # called by wait_for
answers() { # OID
	get "$1" 2>/dev/null | grep -q INTEGER
}

fault_trap() {
	step "A fault becomes a trap" \
		"Slot 7 reports alarm 2; trap number, slot and the card's text arrive as the document says."
	show chassis set 7 200 1 1
	show chassis fault 7 200 1 0 1 "laser too hot"
	show_trap 3
	expect '32473\.2\.1\.7 = INTEGER: 7' '32473\.2\.20\.1\.3\.2\.7 = STRING: "laser too hot"'
	show get 2.11.1.1.2.2.7
	expect 'INTEGER: 2'
}

silent_fault() {
	step "The same alarm switched off" \
		"1 in the row's send-trap column is off and is kept on flash; the next fault of this row is silent, another one is not."
	show put 2.11.1.1.3.2.7 i 1
	expect 'INTEGER: 1'
	show ls -l /mnt/flash0/cards/LINE_slot07/sendtrap.json
	show chassis fault 7 200 1 1 1 "laser cool again"
	show_log 'xxxSendTrap\[0x1\] was disabled'
	show chassis fault 7 200 2 0 2 "fan slow"
	show_trap 5
	! grep -q 'laser cool again' "$traps" || fail "the switched-off row sent a trap"
}

card_leaves() {
	step "A card is pulled" "Slot 9 was the master: another card of the family takes over, the rows of slot 9 go."
	show chassis unplug 9
	show_log '\[ Unregistering \] found a new master [57]'
	wait_for answers 2.10.1.1.2.1.5 || fail "the table did not come back"
	show walk 2.10.1.1.2
	expect_rows 4
	expect_not '\.9 = '
}

board_tables() {
	step "The controller board itself" \
		"Fixed tables, served by the daemon of slot 1: the LEDs, and the product location table's product names."
	show walk 10.232.4.7.1
	expect_rows 16
	show walk 10.232.3.1.1.4
	expect '4\.5 = STRING: "line2' '4\.12 = STRING: "psu4'
}

names() {
	step "Names instead of numbers" \
		"A MIB module made from the card's document: tables, writes and traps go by the document's names."
	echo "   \$ tpg-jsonmib mib $examples/line2.json >$module"
	make_module || fail "no module"
	show by_name snmptable -v2c -c public -t 8 -r 0 -Ci -Cw 76 "$address" linePortTable
	expect 'linePortSpeed' 'linePortLabel' '"to the roof"'
	show by_name snmpset -v2c -c private -t 8 -r 0 "$address" lineAlarmSendTrap.2.7 = on
	expect 'LINE2-MIB::lineAlarmSendTrap\.2\.7 = INTEGER: on\(2\)'
	show chassis fault 7 200 1 0 1 "laser too hot again"
	wait_for grep -q 'hot again' /tmp/named.log || fail "no trap arrived"
	tail -n 1 /tmp/named.log | tr '\t' '\n' >"$shown"
	sed 's/^/     /' "$shown"
	expect 'OID: LINE2-MIB::lineAlarmRow2$' 'LINE2-MIB::line2Slot\.7 = INTEGER: 7' \
		'LINE2-MIB::line2Text1\.2\.7 = STRING: "laser too hot again"'
}

open_shell() {
	# A failing command of the reader's is no failure of the demo.
	bash --rcfile "$top/scripts/demo/shell.rc" -i
}

start_world
card_document
built_in_document
write_value
newer_card
fault_trap
silent_fault
card_leaves
board_tables
names
printf '\ndemo: all %d steps showed what they say\n' "$step"
[ "${1:-}" != --shell ] || open_shell
exit 0
