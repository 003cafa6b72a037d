#!/bin/bash
# Prepares the board's libraries: cross-builds net-snmp, libevent, json-c and GoogleTest, in the
# versions the host has installed, for 32-bit big-endian PowerPC.
#
#   scripts/board-sysroot.sh            prints progress; the result is $TPG_BOARD_CACHE/sysroot
#
#   TPG_BOARD_CACHE   the folder that keeps it all (default ${XDG_CACHE_HOME:-~/.cache}/tpg-board);
#                     not below /tmp, /mnt or /var, which the tests cover with folders of their own
#   TPG_BOARD_JOBS    parallel compilations (default: one per processor)
#
# Exit status: 0 ready, 1 a library does not build, 3 the sources cannot be had, 4 packages of the
# host are missing and this user cannot install them.
set -u

top=$(cd "$(dirname "$0")/.." && pwd)
cache=$(realpath -m "${TPG_BOARD_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tpg-board}")
jobs=${TPG_BOARD_JOBS:-$(nproc)}
triplet=powerpc-linux-gnu
sysroot=$cache/sysroot
next=$cache/sysroot.next
sources=$cache/sources
logs=$cache/logs

host_packages="g++-$triplet qemu-user-static cmake ninja-build make pkg-config dpkg-dev
	libsnmp-dev libevent-dev libjson-c-dev googletest snmpd snmptrapd snmp iproute2 binutils"

say() { echo "board: $*"; }

not_run() { # STATUS REASON
	say "not run: $2"
	exit "$1"
}

# step NAME FUNCTION: runs it with its output in a log file, and says how long it took.
step() {
	local begin=$SECONDS
	if "$2" >"$logs/$1.log" 2>&1; then
		say "$1: $((SECONDS - begin)) s"
	else
		say "$1: failed, see $logs/$1.log"
		tail -n 5 "$logs/$1.log"
		return 1
	fi
}

missing_packages() {
	local package
	for package in $host_packages; do
		[ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
			printf '%s ' "$package"
	done
}

install_packages() { # PACKAGE...
	local root=() install=(apt-get install -y --no-install-recommends "$@")
	if [ "$(id -u)" != 0 ]; then
		sudo -n true 2>/dev/null || not_run 4 "packages are missing, please: sudo ${install[*]}"
		root=(sudo -n)
	fi
	root+=(env DEBIAN_FRONTEND=noninteractive)
	say "installing $*"
	# Package lists that are missing or too old need one update.
	"${root[@]}" "${install[@]}" >"$logs/packages.log" 2>&1 ||
		{ "${root[@]}" apt-get update && "${root[@]}" "${install[@]}"; } \
			>>"$logs/packages.log" 2>&1 ||
		not_run 4 "packages cannot be installed, please: ${install[*]}"
}

host_version() { # DEV-PACKAGE
	dpkg-query -W -f '${source:Version}\n' "$1" | head -n 1
}

# What the sysroot depends on; a difference from its stamp file means to build it again.
wanted_stamp() {
	echo "net-snmp $(host_version libsnmp-dev)"
	echo "libevent $(host_version libevent-dev)"
	echo "json-c $(host_version libjson-c-dev)"
	echo "googletest $(host_version googletest)"
	echo "compiler $($triplet-g++ -dumpfullversion) $(host_version g++-$triplet)"
	echo "recipe $(cat "$0" "$top/cmake/board.cmake" | sha256sum | cut -c 1-16)"
}

# apt with the host's archives as source archives, in lists of its own: /etc/apt stays as it is.
private_apt() {
	"$@" -o Dir::Etc::sourcelist=/dev/null -o Dir::Etc::sourceparts="$cache/apt/parts" \
		-o Dir::State::lists="$cache/apt/lists" -o Dir::Cache="$cache/apt/cache" \
		-o APT::Sandbox::User="$(id -un)"
}

update_lists() {
	local file
	rm -rf "$cache/apt/parts"
	mkdir -p "$cache/apt/parts" "$cache/apt/lists/partial" "$cache/apt/cache/archives/partial"
	for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
		[ -f "$file" ] && sed -nE 's/^deb(-src)?[[:space:]]/deb-src /p' "$file" \
			>"$cache/apt/parts/$(basename "$file" .list).list"
	done
	for file in /etc/apt/sources.list.d/*.sources; do
		[ -f "$file" ] && sed -E 's/^Types:.*/Types: deb-src/' "$file" \
			>"$cache/apt/parts/$(basename "$file")"
	done
	private_apt apt-get update
}

# Unpacks what an earlier run fetched, or fetches the host's version; the newest one if the
# archive keeps that no longer.
fetch_source() { # PACKAGE VERSION
	mkdir -p "$sources/$1" && cd "$sources/$1" && rm -rf tree || return 1
	dpkg-source -x "$1_${2#*:}.dsc" tree && return 0
	rm -rf "${sources:?}/$1"/*
	[ -n "$lists_updated" ] || update_lists # one archive of several may fail: the sources count
	lists_updated=yes
	{ private_apt apt-get source --download-only "$1=$2" ||
		private_apt apt-get source --download-only "$1"; } &&
		dpkg-source -x ./*.dsc tree
}

fetch_sources() {
	local lists_updated=
	fetch_source net-snmp "$(host_version libsnmp-dev)" &&
		fetch_source libevent "$(host_version libevent-dev)" &&
		fetch_source json-c "$(host_version libjson-c-dev)"
}

# Libraries and headers only: the master agent of the tests is the host's own.
build_net_snmp() {
	local build=$cache/build/net-snmp
	rm -rf "$build" && mkdir -p "$build" && cd "$build" &&
		"$sources/net-snmp/tree/configure" --host=$triplet \
			--build="$(dpkg-architecture -qDEB_BUILD_GNU_TYPE)" \
			--prefix=/usr --sysconfdir=/etc CFLAGS=-O2 --disable-static \
			--with-endianness=big --with-transports="TCP Unix UDP" --without-openssl --without-pcre \
			--disable-embedded-perl --without-perl-modules --disable-manuals \
			--disable-scripts --disable-mibs --disable-applications \
			--with-mib-modules=agentx --with-default-snmp-version=3 \
			--with-sys-contact=root --with-sys-location=Unknown \
			--with-logfile=/var/log/snmpd.log \
			--with-persistent-directory=/var/lib/snmp &&
		make sedscript && make -j"$jobs" -C snmplib &&
		make -j"$jobs" -C agent agentlib && make -j"$jobs" -C agent miblib &&
		make -C snmplib installlocallibs INSTALL_PREFIX="$next" &&
		make -C agent installlocallibs installpostlibs INSTALL_PREFIX="$next" &&
		make installheaders install_pkgconfig INSTALL_PREFIX="$next"
}

cmake_build() { # NAME SOURCE-FOLDER OPTION...
	local name=$1 source=$2
	shift 2
	rm -rf "$cache/build/$name"
	cmake -S "$source" -B "$cache/build/$name" -G Ninja -DTPG_BOARD_SYSROOT="$next" \
		-DCMAKE_TOOLCHAIN_FILE="$top/cmake/board.cmake" -DCMAKE_BUILD_TYPE=Release \
		-DCMAKE_C_FLAGS_RELEASE=-O2 -DCMAKE_CXX_FLAGS_RELEASE=-O2 \
		-DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib "$@" &&
		cmake --build "$cache/build/$name" -j "$jobs" &&
		DESTDIR=$next cmake --install "$cache/build/$name"
}

build_libevent() {
	cmake_build libevent "$sources/libevent/tree" -DEVENT__LIBRARY_TYPE=SHARED \
		-DEVENT__DISABLE_OPENSSL=ON -DEVENT__DISABLE_BENCHMARK=ON \
		-DEVENT__DISABLE_TESTS=ON -DEVENT__DISABLE_REGRESS=ON -DEVENT__DISABLE_SAMPLES=ON
}

build_json_c() {
	cmake_build json-c "$sources/json-c/tree" -DBUILD_TESTING=OFF -DBUILD_STATIC_LIBS=OFF \
		-DBUILD_APPS=OFF -DDISABLE_WERROR=ON
}

build_googletest() {
	cmake_build googletest /usr/src/googletest
}

# The configure script of net-snmp keeps one processor busy for most of the time: the others
# are built beside it.
build_all() {
	rm -rf "$next"
	mkdir -p "$next" "$cache/build"
	# The emulator shows this folder as the root: C library and own libraries in one.
	ln -s /usr/$triplet/lib "$next/lib"
	step net-snmp build_net_snmp &
	local net_snmp=$!
	local status=0
	step libevent build_libevent || status=1
	step json-c build_json_c || status=1
	step googletest build_googletest || status=1
	wait "$net_snmp" || status=1
	return $status
}

mkdir -p "$logs" || exit 1
exec 9>"$cache/lock"
flock 9 # a second run waits, and then finds the work done

read -r -a missing < <(missing_packages)
[ ${#missing[@]} = 0 ] || install_packages "${missing[@]}"

stamp=$(wanted_stamp)
if [ "$stamp" = "$(cat "$sysroot/stamp" 2>/dev/null)" ]; then
	say "sysroot: up to date in $sysroot"
	exit 0
fi
step sources fetch_sources || not_run 3 "the library sources cannot be had"
build_all || exit 1
echo "$stamp" >"$next/stamp"
rm -rf "$sysroot" "$cache/build" "${sources:?}"/*/tree
mv "$next" "$sysroot"
say "sysroot: ready in $sysroot after $SECONDS s"
