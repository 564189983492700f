SUMMARY = "Publishes USB printers on the local link by multicast DNS"
# No licence is granted; the file says so. From 6.0 on its flag has no prefix.
LICENSE = "LicenseRef-bonjour-CLOSED"
LIC_FILES_CHKSUM = "file://LICENSE;md5=7a9119b4f08d2ad9b25b1df61d540599"
NO_GENERIC_LICENSE[LicenseRef-bonjour-CLOSED] = "LICENSE"
NO_GENERIC_LICENSE[bonjour-CLOSED] = "LICENSE"

inherit cmake systemd update-rc.d externalsrc

# The tree that contains this layer, which gets no links to the build.
EXTERNALSRC = "${@os.path.realpath(d.getVar('THISDIR') + '/../../../..')}"
EXTERNALSRC_SYMLINKS = ""

EXTRA_OECMAKE = "-DBONJOUR_STOCK_KERNEL=ON -DBONJOUR_SYSTEMD_UNIT_DIR=${systemd_system_unitdir}"

# The responder: with "standard" the one that keeps every rule of RFC 6762 and RFC 6763;
# docs/responders.md says what differs for whom.
PACKAGECONFIG ??= ""
PACKAGECONFIG[standard] = "-DBONJOUR_RESPONDER=standard,-DBONJOUR_RESPONDER=classic"

SYSTEMD_SERVICE:${PN} = "bonjour.service"
INITSCRIPT_NAME = "bonjour"
INITSCRIPT_PARAMS = "defaults 95 05"
FILES:${PN}:append = " ${systemd_system_unitdir} ${prefix}/lib/udev ${datadir}/bonjour"
RRECOMMENDS:${PN} = "kernel-module-usblp"
CONFFILES:${PN} = "${sysconfdir}/default/bonjour"
