# A Debian package of everything `cmake --install` puts in place: the library, its headers, the
# CMake and pkg-config files, and the programs (quorlix with its man page and systemd unit, the
# directory service, the demo when built). `cpack -G DEB` in the build folder writes it.
#
# Nothing runs at installation: no maintainer scripts, no files made outside the package, the
# systemd unit installed but not enabled, so removing the package leaves nothing behind.
set(CPACK_PACKAGE_NAME quorlix)
set(CPACK_PACKAGE_VENDOR "Quorlix")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Bluetooth LE proximity beacons for Qt 6 hosts, and the quorlix command")
set(CPACK_PACKAGE_DESCRIPTION "Presence events and device pairing for Qt 6 applications on \
BlueZ; the quorlix command scans, watches, records and calibrates beacons and publishes room \
presence over MQTT.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}_${PROJECT_VERSION})

set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Quorlix developers <quorlix@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The programs' run-time libraries come from dpkg-shlibdeps; building against the library needs
# Qt's and curl's development packages, which it cannot see.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-base-dev (>= 6.4), libcurl4-openssl-dev | libcurl-dev")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "mosquitto, bluez")
# GNUInstallDirs gave multiarch library folders; the package keeps them.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
include(CPack)
