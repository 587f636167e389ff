SUMMARY = "Real-time kernel services for ported applications on embedded Linux"
SECTION = "libs"
# The owner has not chosen a licence yet.
LICENSE = "CLOSED"

# Where your copy of the repository is:
ZELKERNEL_GIT ?= "git:///srv/git/zelkernel.git;protocol=file;branch=main"
SRC_URI = "${ZELKERNEL_GIT}"
SRCREV ?= "${AUTOREV}"
PV = "1.0+git${SRCPV}"
S = "${WORKDIR}/git"

inherit cmake

EXTRA_OECMAKE = "-DZELKERNEL_BUILD_TESTS=OFF -DZELKERNEL_BUILD_PLATFORM=OFF"

# zelkernel-native: zelkernel-check-wraps for the builds of applications. Nothing of it is compiled.
BBCLASSEXTEND = "native"
do_compile:class-native() {
    :
}
do_install:class-native() {
    DESTDIR='${D}' cmake --install ${B} --component host-tools
}

# The CMake package names the static archive: it is of no use without it.
PACKAGES =+ "${PN}-tools ${PN}-host-tools"
FILES:${PN}-tools = "${bindir}/zelkernel-doctor ${bindir}/zelkernel-top ${bindir}/zelkernel-trace"
FILES:${PN}-host-tools = "${bindir}/zelkernel-check-wraps ${datadir}/zelkernel/*.txt \
    ${datadir}/zelkernel/trace"
FILES:${PN}-staticdev = ""
FILES:${PN}-dev += "${libdir}/cmake ${libdir}/*.a ${datadir}/zelkernel/*.wrap"
INSANE_SKIP:${PN}-dev += "staticdev"
CONFFILES:${PN} = "${sysconfdir}/iproute2/rt_tables.d/zelkernel.conf"

# Run by the library as commands. Traffic is marked by iptables' target MARK in the table mangle; the
# criteria are the application's, which may ask for further extensions.
RDEPENDS:${PN}:class-target = "iproute2 iptables iptables-module-xt-mark"
RDEPENDS:${PN}-host-tools:class-target = "python3-modules binutils"
# Routing instances, TUN devices and marks are the kernel's: modules, or built into it.
RRECOMMENDS:${PN}:class-target = "iptables-modules kernel-module-tun kernel-module-xt-mark \
    kernel-module-iptable-mangle kernel-module-ip6table-mangle"
