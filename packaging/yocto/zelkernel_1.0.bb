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

PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir} ${datadir}/zelkernel/wrapped_functions.txt ${datadir}/zelkernel/exported_names.txt ${datadir}/zelkernel/trace"
FILES:${PN}-dev += "${libdir}/cmake ${datadir}/zelkernel/zelkernel.wrap"

# Run by the library as commands; routing instances, TUN devices and marks are the kernel's.
RDEPENDS:${PN} = "iproute2 iptables"
RDEPENDS:${PN}-tools = "python3-core python3-json binutils"
RRECOMMENDS:${PN} = "kernel-module-tun kernel-module-xt-mark"
