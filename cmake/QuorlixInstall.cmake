# Installs the library, its headers (keeping the quorlix/<folder>/ layout that the includes use),
# the CMake package that find_package(Quorlix) reads, and the development directory service.
include(CMakePackageConfigHelpers)

set(QUORLIX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Quorlix)

install(TARGETS quorlix EXPORT QuorlixTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/quorlix
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")
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

# Programs find their data in <prefix>/share/quorlix, next to their own bin directory.
set(QUORLIX_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/quorlix)
install(TARGETS quorlix-directory RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/tools/directory/devices.json
    DESTINATION ${QUORLIX_INSTALL_DATADIR})
