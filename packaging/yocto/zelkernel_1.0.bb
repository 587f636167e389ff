# Needs CMake 3.25 and GCC 12: release 5.0 (scarthgap) or a later one. An application's recipe says
#   DEPENDS = "zelkernel zelkernel-native"
# and runs zelkernel-check-wraps on what it linked.
SUMMARY = "Real-time kernel services for ported applications on embedded Linux"
DESCRIPTION = "Operating-system services for an application that was written for a real-time \
kernel: scheduling, locks, clocks, kernel calls, interrupt emulation and virtual routing."
SECTION = "libs"
# The owner has not chosen a licence yet.
LICENSE = "CLOSED"

# Where your copy of the repository is, and which commit of it:
ZELKERNEL_GIT ?= "git:///srv/git/zelkernel.git;protocol=file;branch=main"
SRCREV ?= "${AUTOREV}"
PV = "1.0+git"
# The place where a source tree is looked for, whatever the release calls git's own.
SRC_URI = "${ZELKERNEL_GIT};destsuffix=${BP}"

inherit cmake pkgconfig

# pthread_getattr_default_np and two widths of time are glibc's alone.
COMPATIBLE_HOST:libc-musl:class-target = "null"

EXTRA_OECMAKE = "-DZELKERNEL_BUILD_TESTS=OFF -DZELKERNEL_BUILD_PLATFORM=OFF"

# sys/sdt.h, the header of the probe points that zelkernel-trace records.
PACKAGECONFIG ??= "probes"
PACKAGECONFIG:class-native = ""
PACKAGECONFIG[probes] = ",,systemtap"

# zelkernel-native: what runs where applications are built. Nothing of it is compiled.
BBCLASSEXTEND = "native"
do_compile:class-native() {
    :
}
do_install:class-native() {
    DESTDIR='${D}' cmake --install ${B} --component host-tools
}

PACKAGE_BEFORE_PN = "${PN}-tools ${PN}-host-tools"
FILES:${PN}-tools = "${bindir}/zelkernel-doctor ${bindir}/zelkernel-top ${bindir}/zelkernel-trace"
FILES:${PN}-host-tools = "${bindir}/zelkernel-check-wraps ${datadir}/zelkernel/*.txt \
    ${datadir}/zelkernel/trace"
FILES:${PN}-dev += "${datadir}/zelkernel/*.wrap"
CONFFILES:${PN} = "${sysconfdir}/iproute2/rt_tables.d/zelkernel.conf"

# The CMake package names the static archive: it is of no use without it.
RDEPENDS:${PN}-dev += "${PN}-staticdev"
# Run by the library as commands. Traffic is marked by iptables' target MARK in the table mangle; the
# criteria are the application's, which may ask for further extensions.
RDEPENDS:${PN}:class-target = "iproute2 iptables iptables-module-xt-mark"
RDEPENDS:${PN}-host-tools:class-target = "python3-modules binutils"
# Routing instances, TUN devices and marks are the kernel's: modules, or built into it.
RRECOMMENDS:${PN}:class-target = "iptables-modules kernel-module-tun kernel-module-xt-mark \
    kernel-module-iptable-mangle kernel-module-ip6table-mangle"
