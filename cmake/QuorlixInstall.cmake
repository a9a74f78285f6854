# Installs the library with its public headers (the quorlix/<folder>/ layout that the includes
# use), the CMake package that find_package(Quorlix) reads, a pkg-config file, and the tools.
# Every rule names its component, which is also its Debian package (QuorlixPackaging.cmake):
#   library      the shared library (libquorlix1)
#   development  headers, CMake and pkg-config files, the static library (libquorlix-dev)
#   command      the quorlix command, its man page and systemd unit (quorlix)
#   tools        quorlix-directory and quorlix-demo (quorlix-tools)
include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/QuorlixManPage.cmake)

set(QUORLIX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Quorlix)

install(TARGETS quorlix EXPORT QuorlixTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT QuorlixTargets
    NAMESPACE Quorlix::
    DESTINATION ${QUORLIX_INSTALL_CMAKEDIR}
    COMPONENT development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuorlixConfig.cmake.in
    ${PROJECT_BINARY_DIR}/QuorlixConfig.cmake
    INSTALL_DESTINATION ${QUORLIX_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuorlixConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuorlixConfig.cmake
    ${PROJECT_BINARY_DIR}/QuorlixConfigVersion.cmake
    DESTINATION ${QUORLIX_INSTALL_CMAKEDIR}
    COMPONENT development)

# pkg-config, as Debian's own libraries do it: the Qt modules by their .pc names, never paths. A
# static library's own dependencies are private (pkg-config --static adds them); curl by its flag,
# since Debian's libcurl.pc would ask for every library of a static curl.
set(QUORLIX_PC_REQUIRES_PRIVATE "")
set(QUORLIX_PC_LIBS_PRIVATE "")
if(NOT BUILD_SHARED_LIBS)
    set(QUORLIX_PC_REQUIRES_PRIVATE " Qt6DBus")
    set(QUORLIX_PC_LIBS_PRIVATE " -lcurl")
endif()
# Relative to the .pc file itself, so that the same file serves `cmake --install --prefix` and
# the Debian package (which installs into /usr whatever prefix was configured).
file(RELATIVE_PATH QUORLIX_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" QUORLIX_PC_PREFIX "\${pcfiledir}/${QUORLIX_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/quorlix.pc.in ${PROJECT_BINARY_DIR}/quorlix.pc.in @ONLY)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/quorlix.pc INPUT ${PROJECT_BINARY_DIR}/quorlix.pc.in)
install(FILES ${PROJECT_BINARY_DIR}/quorlix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)

# Programs find their data in <prefix>/share/quorlix, next to their own bin directory.
set(QUORLIX_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/quorlix)
if(TARGET quorlix-directory AND QUORLIX_BUILD_TOOLS)
    install(TARGETS quorlix-directory RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/directory/devices.json
        DESTINATION ${QUORLIX_INSTALL_DATADIR} COMPONENT tools)
    configure_file(${PROJECT_SOURCE_DIR}/tools/directory/quorlix-directory.1.in
        ${PROJECT_BINARY_DIR}/tools/directory/quorlix-directory.1 @ONLY)
    quorlix_install_man_page(${PROJECT_BINARY_DIR}/tools/directory/quorlix-directory.1 tools)
endif()
