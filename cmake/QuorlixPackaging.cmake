# Debian packages, split as Debian splits a library and its programs:
#   libquorlix1     the shared library libquorlix.so.1
#   libquorlix-dev  headers, the CMake package and quorlix.pc; needs libquorlix1 and Qt's -dev
#   quorlix         the command, its man page and the quorlix-publish systemd unit; run-time
#                   libraries only (the command carries the library's code itself)
#   quorlix-tools   quorlix-directory and quorlix-demo with their data and man pages
#   qml6-module-quorlix  the QML module (import Quorlix) in Qt's QML folder, named as Debian names
#                   its QML modules; the quick layer's own code is a static part of its plugin
# and the -dbgsym package of each that holds programs or libraries. scripts/build-packages.sh makes
# them: a shared build under /usr with Debian's compiler flags, then cpack.
#
# CPack rather than debhelper: the packages come from the tree that CMake already builds and
# installs, nothing is written outside the build folder, and no second description of the
# install layout (a debian/ folder) can drift from this one. What debhelper would add is done here:
# man pages and changelog compressed with gzip -9n, copyright and changelog in each package's doc
# folder, stripped programs with their debug symbols split into -dbgsym, shlibs and run-time
# dependencies from dpkg-shlibdeps. lintian checks the result (tests/tools/DebianPackage.cmake).
#
# Nothing is left behind: no files under /etc, the unit installed but not enabled, and no
# maintainer scripts at all (the library package activates libc's ldconfig trigger instead).
set(QUORLIX_PACKAGE_MAINTAINER
    "Quorlix maintainers <maintainers@users.noreply.c-seed-2f37b149.example>"
    CACHE STRING "Maintainer field of the Debian packages (name <address>)")
set(QUORLIX_DEBIAN_REVISION 1 CACHE STRING "Debian revision of the packages (the -N of x.y.z-N)")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorlix)
set(CPACK_PACKAGE_VENDOR "Quorlix")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# Install with DESTDIR, so that CMAKE_INSTALL_PREFIX is the real prefix at install time (the unit's
# ExecStart is written from it).
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development command tools)
if(QUORLIX_BUILD_QUICK)
    list(APPEND CPACK_COMPONENTS_ALL qml)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${QUORLIX_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QUORLIX_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# CPack strips while it splits the debug symbols off; stripping first would leave none to split.
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# quorlix-demo links libquorlix.so.1 from this build; its dependency is the component's below.
get_target_property(library_dir quorlix LIBRARY_OUTPUT_DIRECTORY)
if(NOT library_dir)
    get_target_property(library_dir quorlix BINARY_DIR)
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${library_dir})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libquorlix${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# The shlibs file that lets dpkg-shlibdeps of other packages depend on this one (only a package
# that ships a shared library gets one).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/PostBuild.cmake)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "Bluetooth LE proximity beacons for Qt 6 applications
Quorlix gives Qt 6 applications presence events (entry, exit and ranging with a
smoothed proximity word and distance) for the iBeacon devices of one family,
resolved through a directory web service, and a screen on which the user pairs
with a nearby device. It listens through BlueZ.
.
This package contains the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquorlix-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
# The public headers include Qt Core and Widgets; quorlix.pc and QuorlixConfig.cmake name them.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qt6-base-dev (>= 6.4)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "Bluetooth LE proximity beacons for Qt 6 - development files
Quorlix gives Qt 6 applications presence events (entry, exit and ranging with a
smoothed proximity word and distance) for the iBeacon devices of one family,
resolved through a directory web service, and a screen on which the user pairs
with a nearby device.
.
This package contains the headers, the CMake package (find_package(Quorlix))
and the pkg-config file.")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME quorlix)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SUGGESTS "bluez, mosquitto")
set(CPACK_DEBIAN_COMMAND_DESCRIPTION "Bluetooth LE proximity beacons from a shell
The quorlix command scans the iBeacon beacons around, follows a device through
its directory service, records and replays what the radio hears, calibrates a
beacon's power at 1 m, and publishes room presence over MQTT with Home
Assistant discovery. It listens through BlueZ.
.
The quorlix-publish systemd service is installed but not enabled.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME quorlix-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DEPENDS library)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Bluetooth LE proximity beacons - directory service and demo
quorlix-directory serves the device lookups of the Quorlix library on the
loopback interface from a JSON file, for development and tests. quorlix-demo is
a host application of the library that watches a device and pairs with a nearby
one; it runs on simulated beacons and an in-process directory service, with no
radio and no server.")

set(CPACK_DEBIAN_QML_PACKAGE_NAME qml6-module-quorlix)
set(CPACK_DEBIAN_QML_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_QML_DEPENDS library)
# dpkg-shlibdeps sees the plugin's libraries; the QML modules that its types import are loaded by
# the QML engine and named here.
set(CPACK_DEBIAN_QML_PACKAGE_DEPENDS
    "qml6-module-qtqml, qml6-module-qtquick, qml6-module-qtquick-controls, qml6-module-qtquick-layouts")
set(CPACK_DEBIAN_QML_DESCRIPTION "Bluetooth LE proximity beacons for Qt 6 - QML module
Quorlix gives Qt 6 applications presence events (entry, exit and ranging with a
smoothed proximity word and distance) for the iBeacon devices of one family,
resolved through a directory web service, and a screen on which the user pairs
with a nearby device.
.
This package contains the QML module Quorlix: BeaconModel (the beacons in
range, nearest first), DevicePresence, DevicePairing and the PairingList view,
for Qt Quick applications with no C++ of their own.")

# Each package's doc folder: the copyright and Debian's changelog; and lintian's overrides, each
# with its reason. Only packages get them (EXCLUDE_FROM_ALL): `cmake --install` leaves them out.
find_program(QUORLIX_GZIP gzip REQUIRED)
set(debian_dir ${PROJECT_BINARY_DIR}/debian)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in ${debian_dir}/changelog.Debian
    @ONLY)
add_custom_command(OUTPUT ${debian_dir}/changelog.Debian.gz
    COMMAND ${QUORLIX_GZIP} -9n -c ${debian_dir}/changelog.Debian > ${debian_dir}/changelog.Debian.gz
    DEPENDS ${debian_dir}/changelog.Debian VERBATIM)
add_custom_target(quorlix-debian-changelog ALL DEPENDS ${debian_dir}/changelog.Debian.gz)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright ${debian_dir}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
    set(overrides ${PROJECT_SOURCE_DIR}/cmake/debian/${package}.lintian-overrides)
    if(EXISTS ${overrides})
        install(FILES ${overrides} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
            RENAME ${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
    endif()
endforeach()

# A package of a static library, or of a tree meant for /usr/local, would not be what the names
# promise: cpack refuses such a build and says how to make the right one.
set(QUORLIX_PACKAGE_PROBLEM "")
if(NOT BUILD_SHARED_LIBS)
    set(QUORLIX_PACKAGE_PROBLEM "this build makes a static library")
elseif(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(QUORLIX_PACKAGE_PROBLEM "this build installs into ${CMAKE_INSTALL_PREFIX}, not /usr")
endif()
if(QUORLIX_PACKAGE_PROBLEM)
    file(WRITE ${PROJECT_BINARY_DIR}/QuorlixCPackCheck.cmake
         "message(FATAL_ERROR \"Debian packages: ${QUORLIX_PACKAGE_PROBLEM}; make them with "
         "scripts/build-packages.sh (a shared build installed under /usr)\")\n")
    set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/QuorlixCPackCheck.cmake)
endif()
include(CPack)
