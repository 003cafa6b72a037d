#!/bin/bash
# Sees that the Debian 12 packages for building, testing and the demo are
# installed. As root, or with a sudo that asks nothing, it installs what is
# missing; else it prints the command to type and fails.
#
#   scripts/deps.sh [PACKAGE...]     the packages named are wanted too
set -eu

packages=(g++ gcc cmake ninja-build pkg-config binutils smitools
	libcli11-dev libjsoncpp-dev libvalijson-dev
	libsnmp-dev libevent-dev libjson-c-dev libsystemd-dev libgtest-dev
	snmpd snmptrapd snmp iproute2 util-linux "$@")

is_installed() { # PACKAGE
	[ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

fail() {
	echo "deps: $*" >&2
	exit 1
}

# The tests and the demo start a master of their own; one that came along with
# the packages must not occupy the host's ports.
switch_off_services() {
	local service
	[ -d /run/systemd/system ] || return 0
	for service in "$@"; do
		echo "deps: switching off the new service $service (systemctl enable --now $service starts it)"
		"${root[@]}" systemctl disable --now --quiet "$service" || true
	done
}

missing=()
services=()
command -v dpkg-query >/dev/null ||
	fail "this is not a Debian system, please install the equivalents of: ${packages[*]}"
for package in "${packages[@]}"; do
	is_installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0
for package in snmpd snmptrapd; do
	is_installed "$package" || services+=("$package")
done

# RUNLEVEL keeps the packages of a machine without systemd from starting services.
root=(env DEBIAN_FRONTEND=noninteractive RUNLEVEL=1)
if [ "$(id -u)" != 0 ]; then
	sudo -n true 2>/dev/null ||
		fail "packages are missing, please: sudo apt-get install -y --no-install-recommends ${missing[*]}"
	root=(sudo -n "${root[@]}")
fi
echo "deps: installing ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${root[@]}" apt-get update &&
	"${root[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; } \
	</dev/null >"$log" 2>&1; then
	tail -n 15 "$log" >&2
	fail "the packages cannot be installed: ${missing[*]}"
fi
switch_off_services "${services[@]}"
