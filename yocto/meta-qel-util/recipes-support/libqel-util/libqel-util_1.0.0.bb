SUMMARY = "Utility library for the service programs of an embedded Linux device"
DESCRIPTION = "A daemon framework, thread and System V IPC wrappers, \
abstract-namespace datagram sockets, device identity queries (eMMC RPMB \
hardware ID, serial number, barcode, firmware version), an I2C adapter, an \
IPv4 neighbour check and CRC-32, with the tools qel-devinfo, qel-neighbour \
and the device simulator qel-devsim."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=fbf805432eba6eda82dcefd54244243d"

# The board (its distro or local.conf) names the library's repository, e.g.
#   QEL_UTIL_GIT_URI = "git://git.example.com/libqel_util.git;protocol=https"
# SRCREV is the commit of the tag v${PV}. (A tag parameter in SRC_URI would
# be checked against it from whinlatter on, but scarthgap's fetcher takes it
# for a second revision.)
QEL_UTIL_GIT_URI ??= ""
SRC_URI = "${QEL_UTIL_GIT_URI};nobranch=1;destsuffix=${BP} \
           file://run-ptest"
SRCREV = "788c7c65547f3c9209b9502828ee9df1d5989aff"

python () {
    if not d.getVar('QEL_UTIL_GIT_URI') and not d.getVar('EXTERNALSRC'):
        raise bb.parse.SkipRecipe("QEL_UTIL_GIT_URI is not set: name the "
                                  "library's git repository (see the layer's README)")
    if bb.utils.contains('PACKAGECONFIG', 'tests', True, False, d) and \
       not bb.utils.contains('PACKAGECONFIG', 'tools', True, False, d):
        bb.fatal("PACKAGECONFIG 'tests' needs 'tools': the tests run the simulator")
}

inherit cmake pkgconfig ptest systemd update-rc.d

# OpenEmbedded's flags and build type stay as the cmake class sets them.
PACKAGECONFIG ??= "tools ${@bb.utils.contains('PTEST_ENABLED', '1', 'tests', '', d)}"
PACKAGECONFIG[tools] = "-DQEL_UTIL_BUILD_TOOLS=ON,-DQEL_UTIL_BUILD_TOOLS=OFF,nlohmann-json elfutils"
PACKAGECONFIG[tests] = "-DBUILD_TESTING=ON -DQEL_UTIL_INSTALL_TESTS=ON -DQEL_UTIL_TESTS_INSTALL_DIR=${PTEST_PATH}/tests,-DBUILD_TESTING=OFF,googletest zlib"

EXTRA_OECMAKE = "-DQEL_UTIL_BUILD_EXAMPLES=ON -DQEL_UTIL_INSTALL_EXAMPLES=ON"

# The example service starts from the init system the distro has.
do_install:append() {
	if ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'true', 'false', d)}; then
		install -D -m 0644 ${S}/examples/qel-exampled.service \
			${D}${systemd_system_unitdir}/qel-exampled.service
	fi
	if ${@bb.utils.contains('DISTRO_FEATURES', 'sysvinit', 'true', 'false', d)}; then
		install -D -m 0755 ${S}/examples/qel-exampled.init \
			${D}${sysconfdir}/init.d/qel-exampled
	fi
}

# The tools in a package of their own and the emulators that qel-devsim
# preloads (${libdir}/qel_util) in another, as in the Debian packages; the
# example service in a third.
PACKAGES =+ "${PN}-example ${PN}-tools ${PN}-devsim-emulators"
FILES:${PN}-example = "${bindir}/qel-exampled ${bindir}/qel-exampled-client \
                       ${systemd_system_unitdir}/qel-exampled.service \
                       ${sysconfdir}/init.d/qel-exampled"
FILES:${PN}-tools = "${bindir}/*"
FILES:${PN}-devsim-emulators = "${libdir}/qel_util"
RDEPENDS:${PN}-tools = "${PN}-devsim-emulators"

SYSTEMD_PACKAGES = "${PN}-example"
SYSTEMD_SERVICE:${PN}-example = "qel-exampled.service"
INITSCRIPT_PACKAGES = "${PN}-example"
INITSCRIPT_NAME:${PN}-example = "qel-exampled"

# The neighbour check runs /sbin/bridge, which iproute2 split into a package
# of its own after scarthgap. The board's layer provides /sbin/fw_setenv and
# /usr/bin/ubi_get_volume_versions.sh (README.md).
QEL_UTIL_BRIDGE = "${@'iproute2' if 'scarthgap' in d.getVar('LAYERSERIES_CORENAMES').split() else 'iproute2-bridge'}"
RDEPENDS:${PN} = "${QEL_UTIL_BRIDGE}"
# The suite runs on the target as root, with the device tools it drives.
RDEPENDS:${PN}-ptest = "${PN}-tools ${QEL_UTIL_BRIDGE} iproute2-ip i2c-tools \
                         libubootenv-bin mmc-utils python3-core"
