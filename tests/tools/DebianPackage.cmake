# cmake -P script: builds the Debian package of BUILD_DIR with CPack into WORK_DIR, lists it, checks
# what it holds and depends on, then installs it into a scratch root with dpkg --root (never the
# machine itself) and removes it again, which must leave no file behind.
foreach(var BUILD_DIR WORK_DIR)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "DebianPackage.cmake: ${var} is not set")
    endif()
endforeach()
file(REMOVE_RECURSE ${WORK_DIR})

function(run output)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err
                    TIMEOUT 300)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN} failed (${result}):\n${out}${err}")
    endif()
    set(${output} "${out}" PARENT_SCOPE)
endfunction()

run(ignored cpack -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR})
file(GLOB debs ${WORK_DIR}/quorlix_*.deb)
list(LENGTH debs count)
if(NOT count EQUAL 1)
    message(FATAL_ERROR "expected one package in ${WORK_DIR}, found: ${debs}")
endif()

run(listing dpkg-deb -c ${debs})
message(STATUS "${debs}:\n${listing}")
foreach(expected ./usr/bin/quorlix ./usr/bin/quorlix-directory ./usr/include/quorlix/Quorlix.h
                 ./usr/lib/cmake/Quorlix/QuorlixConfig.cmake ./usr/lib/pkgconfig/quorlix.pc
                 ./usr/lib/systemd/system/quorlix-publish.service
                 ./usr/share/man/man1/quorlix.1)
    if(NOT listing MATCHES " ${expected}\n")
        message(FATAL_ERROR "the package lacks ${expected}")
    endif()
endforeach()
# Files under /etc would be configuration the package leaves behind; services must not start.
if(listing MATCHES " \\./etc/" OR listing MATCHES "/usr/local/")
    message(FATAL_ERROR "the package installs outside /usr")
endif()
run(control dpkg-deb -I ${debs})
if(control MATCHES "(postinst|prerm|postrm|preinst)")
    message(FATAL_ERROR "the package runs scripts:\n${control}")
endif()
run(depends dpkg-deb -f ${debs} Depends)
foreach(needed libmosquitto1 libqt6core6 qt6-base-dev)
    if(NOT depends MATCHES "${needed}")
        message(FATAL_ERROR "the package does not depend on ${needed}: ${depends}")
    endif()
endforeach()

set(root ${WORK_DIR}/root)
file(MAKE_DIRECTORY ${root}/var/lib/dpkg/updates ${root}/var/lib/dpkg/info)
file(TOUCH ${root}/var/lib/dpkg/status)
# The scratch root has none of the dependencies; they are checked above instead.
run(ignored dpkg --root=${root} --force-depends --force-script-chrootless -i ${debs})
if(NOT EXISTS ${root}/usr/bin/quorlix)
    message(FATAL_ERROR "dpkg --root did not install usr/bin/quorlix")
endif()
run(includedir pkg-config --with-path=${root}/usr/lib/pkgconfig --variable=includedir quorlix)
string(STRIP "${includedir}" includedir)
if(NOT EXISTS ${includedir}/quorlix/Quorlix.h)
    message(FATAL_ERROR "quorlix.pc points at ${includedir}, which lacks quorlix/Quorlix.h")
endif()
run(ignored dpkg --root=${root} --force-depends --force-script-chrootless -r quorlix)
file(GLOB_RECURSE left LIST_DIRECTORIES false RELATIVE ${root} ${root}/usr/* ${root}/etc/*)
if(left)
    message(FATAL_ERROR "removing the package left: ${left}")
endif()
