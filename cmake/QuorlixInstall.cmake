# Installs the library with its public headers (the quorlix/<folder>/ layout that the includes
# use), the CMake package that find_package(Quorlix) reads, a pkg-config file, and the tools.
include(CMakePackageConfigHelpers)

set(QUORLIX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Quorlix)

install(TARGETS quorlix EXPORT QuorlixTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT QuorlixTargets
    NAMESPACE Quorlix::
    DESTINATION ${QUORLIX_INSTALL_CMAKEDIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuorlixConfig.cmake.in
    ${PROJECT_BINARY_DIR}/QuorlixConfig.cmake
    INSTALL_DESTINATION ${QUORLIX_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuorlixConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuorlixConfig.cmake
    ${PROJECT_BINARY_DIR}/QuorlixConfigVersion.cmake
    DESTINATION ${QUORLIX_INSTALL_CMAKEDIR})

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
configure_file(${PROJECT_SOURCE_DIR}/cmake/quorlix.pc.in ${PROJECT_BINARY_DIR}/quorlix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quorlix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Programs find their data in <prefix>/share/quorlix, next to their own bin directory.
set(QUORLIX_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/quorlix)
if(TARGET quorlix-directory AND QUORLIX_BUILD_TOOLS)
    install(TARGETS quorlix-directory RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${PROJECT_SOURCE_DIR}/tools/directory/devices.json
        DESTINATION ${QUORLIX_INSTALL_DATADIR})
endif()
