SUMMARY = "Find AI devices on the local network and exchange commands and data with them"
SECTION = "libs"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# The sources beside the recipe's layer, or wherever the distribution keeps them.
LUMORA_SOURCES ?= "${THISDIR}/../.."
inherit externalsrc cmake pkgconfig
EXTERNALSRC = "${LUMORA_SOURCES}"

DEPENDS = "cjson"

# "reference" builds the platform libraries; "external" takes those of the recipe named here.
LUMORA_PLATFORM ?= "reference"
LUMORA_PLATFORM_RECIPE ?= ""
DEPENDS += "${@'libcoap spdlog fmt' if d.getVar('LUMORA_PLATFORM') == 'reference' else d.getVar('LUMORA_PLATFORM_RECIPE')}"

# Keys need libcoap over OpenSSL; over another libcoap they are left out.
PACKAGECONFIG ??= "keys"
PACKAGECONFIG[keys] = "-DLUMORA_LINK_DTLS=ON,-DLUMORA_LINK_DTLS=OFF,openssl"
PACKAGECONFIG[examples] = "-DLUMORA_BUILD_EXAMPLES=ON,-DLUMORA_BUILD_EXAMPLES=OFF"
PACKAGECONFIG[tools] = "-DLUMORA_BUILD_TOOLS=ON,-DLUMORA_BUILD_TOOLS=OFF,cli11 sqlite3"

# The distribution's own flags decide on optimization, and its folders are those of the dynamic linker.
EXTRA_OECMAKE = " \
    -DCMAKE_BUILD_TYPE=None \
    -DBUILD_TESTING=OFF \
    -DLUMORA_INSTALL_RUNPATH=OFF \
    -DLUMORA_WARNINGS_AS_ERRORS=OFF \
    -DLUMORA_PLATFORM=${LUMORA_PLATFORM} \
"

# The libraries have no version in their names: they belong to the packages that run, not to the one to develop.
SOLIBS = ".so"
FILES_SOLIBSDEV = ""

PACKAGES =+ "${PN}-platform ${PN}-examples ${PN}-tools"
FILES:${PN}-platform = "${libdir}/liblumora.so ${libdir}/liblink_log.so ${libdir}/libsecurec.so"
FILES:${PN}-examples = "${libexecdir}/lumora"
FILES:${PN}-tools = "${bindir} ${datadir}/bash-completion ${datadir}/zsh"
FILES:${PN} = "${libdir}/liblumora_cpp.so"
FILES:${PN}-dev += "${libdir}/cmake/lumora"
RPROVIDES:${PN}-platform = "lumora-platform-libraries"
RDEPENDS:${PN} = "${@'${PN}-platform' if d.getVar('LUMORA_PLATFORM') == 'reference' else 'lumora-platform-libraries'}"
ALLOW_EMPTY:${PN}-examples = "1"
ALLOW_EMPTY:${PN}-tools = "1"
