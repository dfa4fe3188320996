SUMMARY = "Utility library for the service programs of an embedded Linux device"
DESCRIPTION = "A daemon framework, thread and System V IPC wrappers, \
abstract-namespace datagram sockets, device identity queries (eMMC RPMB \
hardware ID, serial number, barcode, firmware version), an I2C adapter, an \
IPv4 neighbour check and CRC-32, with the tools qel-devinfo, qel-neighbour \
and the device simulator qel-devsim."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=fbf805432eba6eda82dcefd54244243d"

# The layer sits in the library's repository and builds the tree around it.
# A board that fetches the library instead replaces this with SRC_URI and
# SRCREV in a .bbappend.
inherit externalsrc
EXTERNALSRC = "${@os.path.abspath(os.path.join(d.getVar('THISDIR'), '../../../..'))}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

inherit cmake pkgconfig

DEPENDS = "nlohmann-json"

# No tests (they need GoogleTest and root on the build machine) and no
# example service on the device.
EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DQEL_UTIL_BUILD_EXAMPLES=OFF"

# The tools in a package of their own, and the emulators that qel-devsim
# preloads (${libdir}/qel_util) in another, as in the Debian packages; the
# manual pages go to ${PN}-doc with the rest of the documentation.
PACKAGES =+ "${PN}-tools ${PN}-devsim-emulators"
FILES:${PN}-tools = "${bindir}/*"
FILES:${PN}-devsim-emulators = "${libdir}/qel_util"
RDEPENDS:${PN}-tools = "${PN}-devsim-emulators"

# Programs the library runs through the shell: /sbin/bridge for the
# neighbour check (iproute2's bridge) and /sbin/fw_setenv for the barcode
# writer (libubootenv installs it in ${bindir}; a board without
# /sbin/fw_setenv adds the link). The board's own layer provides
# /usr/bin/ubi_get_volume_versions.sh, which gives the firmware version.
RDEPENDS:${PN} = "iproute2-bridge libubootenv-bin"
