#!/bin/bash
# Installs the Debian package in a private world with a stock master agent, and
# takes the first walk by typing what the installed README shows, as a user who
# is not root. Needs root, for the users; leaves nothing behind. Ends with 0
# (passed), 1 (failed) or 77 (not run).
#
#   tests/package/first_walk.sh BUILD-FOLDER
set -eu

patience=20 # seconds that anything may take
export PATH=$PATH:/usr/sbin:/sbin

not_run() {
	echo "first_walk: not run: $*"
	exit 77
}

fail() {
	echo "first_walk: failed: $*" >&2
	tail -n 30 /tmp/*.log >&2 2>/dev/null || true
	exit 1
}

wait_for() { # COMMAND...
	local deadline=$((SECONDS + patience))
	until "$@" >/dev/null 2>&1; do
		[ $SECONDS -lt $deadline ] || fail "waited for: $*"
		sleep 0.1
	done
}

# The world: everything on the disk is as it is, and what is written is gone at the end.
if [ "${1:-}" != --inside ]; then
	[ "$(id -u)" = 0 ] || not_run "only root can be other users"
	grep -qs '^includeDir' /etc/snmp/snmpd.conf || not_run "no stock snmpd"
	for tool in cpack dpkg-deb setpriv snmpd snmptrapd snmpwalk; do
		command -v $tool >/dev/null || not_run "no $tool"
	done
	unshare --mount true 2>/dev/null || not_run "no namespaces"
	package=$(mktemp -d -p /dev/shm) # no disk to wait for
	trap 'rm -rf "$package"' EXIT
	(cd "$1" && cpack -G DEB -B "$package" >"$package/log" 2>&1) || {
		cat "$package/log" >&2
		exit 1
	}
	unshare --mount --net --pid --fork --mount-proc --kill-child \
		bash "$0" --inside "$package"/*.deb
	exit
fi

mount --make-rprivate /
ip link set lo up
mount -t tmpfs tmpfs /mnt
dpkg-deb -R "$2" /mnt/package
for folder in usr etc; do
	mkdir /mnt/$folder /mnt/$folder.work
	mount -t overlay overlay \
		-o "lowerdir=/$folder,upperdir=/mnt/$folder,workdir=/mnt/$folder.work" /$folder
done
for folder in tmp var run; do
	mount -t tmpfs -o mode=1777 tmpfs /$folder
done
mkdir -p /var/lib /mnt/flash0/cards
install -d -o Debian-snmp -g Debian-snmp /var/lib/snmp
cd /
for folder in usr etc var lib; do
	cp -a /mnt/package/$folder/. /$folder/
done

# What a container lacks: the services' start is what their units say.
cat >/usr/local/bin/sudo <<'END'
#!/bin/sh
exec "$@"
END
cat >/usr/local/bin/systemctl <<'END'
#!/bin/bash
[ "$*" = "restart snmpd tpg" ] || exit 1
command_of() { sed -n 's/^ExecStart=//p' "/lib/systemd/system/$1.service"; }
set -a
. /etc/default/tpg
for service in snmpd tpg; do
	eval "$(command_of $service)" >/tmp/$service.log 2>&1 &
done
END
chmod +x /usr/local/bin/sudo /usr/local/bin/systemctl

# What the block of this number below a heading shows.
shown() { # PAGE HEADING NUMBER
	awk -v heading="## $2" -v wanted="$3" '/^## /{below = $0 == heading}
		below && /^```/{blocks++; next} below && blocks == 2 * wanted - 1' "/usr/share/doc/tpg/$1"
}
block() { # NUMBER
	shown README.md "The first walk" "$1"
}
as_user() { # COMMAND...
	setpriv --reuid nobody --regid nogroup --clear-groups env -u SNMPCONFPATH MIBS= "$@"
}

said=$(sh /mnt/package/DEBIAN/postinst configure)
[ "$(wc -l <<<"$said")" = 2 ] || fail "postinst says: $said"

bash -ec "$(block 1)" || fail "block 1"
as_user bash -c "$(block 2)" >/tmp/traps 2>/tmp/receiver.log &
wait_for grep -qs 'NET-SNMP version' /tmp/traps
mkfifo -m 666 /tmp/typed
as_user bash -c "$(block 3)" </tmp/typed >/tmp/chassis.log 2>&1 &
exec 9>/tmp/typed
wait_for grep -q '^ready' /tmp/chassis.log
wait_for grep -q 'AgentX subagent connected' /tmp/tpg.log
walked() {
	as_user bash -ec "$(block 4)" >/tmp/walked.log 2>&1 && [ "$(wc -l </tmp/walked.log)" -gt 36 ] &&
		! grep -E 'No Such|No more' /tmp/walked.log
}
wait_for walked
grep -q '32473\.2\.10\.1\.1\.4\.1\.5 = STRING: "uplink"' /tmp/walked.log || fail "no port of slot 5"
grep -q '32473\.3\.10\.1\.1\.3\.1\.1\.12 = INTEGER: 12000' /tmp/walked.log || fail "no supply"
block 5 >&9
wait_for grep -qs '32473\.2\.0\.3.*laser too hot' /tmp/traps
as_user bash -ec "$(block 6)" >/tmp/named.log 2>&1 || fail "block 6: $(cat /tmp/named.log)"
grep -q linePortLabel /tmp/named.log && grep -q uplink /tmp/named.log || fail "no table by names"

# The author's page, by a user whose files the agent does not own.
if command -v gcc >/dev/null; then
	author() { # NUMBER
		shown jsonmib.md "From nothing to a card that answers" "$1"
	}
	as_user bash -ec "$(author 1)" >/tmp/author.log 2>&1 || fail "the author's page"
	answers() {
		[ "$(as_user bash -ec "$(author 2)")" = "$(author 3)" ]
	}
	wait_for answers
fi

# The rest of what is installed.
dead=$(cd /usr/share/doc/tpg && grep -o ']([^)#]*)' ./*.md | sed 's/.*](\(.*\))/\1/' |
	sort -u | while read -r link; do [ -e "$link" ] || echo "$link"; done)
[ -z "$dead" ] || fail "dead links: $dead"
gzip -t /usr/share/man/man8/tpg.8.gz /usr/share/doc/tpg/changelog.gz || fail "gzip"
[ -s /usr/share/doc/tpg/copyright ] || fail "no copyright"
if command -v systemd-analyze >/dev/null; then
	complaints=$(systemd-analyze verify --man=no tpg.service 2>&1) && [ -z "$complaints" ] ||
		fail "verify: $complaints"
	systemd-analyze security --offline=true --threshold=25 tpg.service >/tmp/security.log 2>&1 ||
		fail "security: $(tail -n 1 /tmp/security.log)"
fi
echo "first_walk: passed"
