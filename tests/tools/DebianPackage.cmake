# cmake -P script: makes the Debian packages with scripts/build-packages.sh (a shared build of
# SOURCE_DIR under /usr, kept in WORK_DIR/build so that a rerun is incremental) and checks them as
# Debian and a user would: what each package holds and that every installed file is in one; what
# each depends on, and that apt, resolving the command's package on an empty system, pulls no -dev
# package; lintian; dpkg installing all of them into a scratch root and removing them without a
# trace; the QML module, installed there, imported by a QML test that sees the model list beacons;
# the systemd unit, installed under a prefix other than /usr, passing systemd-analyze
# verify; and the man page naming every QUORLIX_ variable that the library and the command read.
cmake_minimum_required(VERSION 3.25)
foreach(var SOURCE_DIR WORK_DIR QMLTESTRUNNER)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "DebianPackage.cmake: ${var} is not set")
    endif()
endforeach()
set(build ${WORK_DIR}/build)
set(packages ${build}/packages)
set(root ${WORK_DIR}/root)
set(prefix ${WORK_DIR}/opt/quorlix)
file(REMOVE_RECURSE ${root} ${WORK_DIR}/opt)

function(run output)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err
                    TIMEOUT 1500)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN} failed (${result}):\n${out}${err}")
    endif()
    set(${output} "${out}${err}" PARENT_SCOPE)
endfunction()

if(LAUNCHER)
    set(ENV{CMAKE_CXX_COMPILER_LAUNCHER} ${LAUNCHER})
endif()
run(ignored bash ${SOURCE_DIR}/scripts/build-packages.sh ${build} -DQUORLIX_WERROR=ON)
run(multiarch dpkg-architecture -qDEB_HOST_MULTIARCH)
string(STRIP "${multiarch}" multiarch)
set(libdir ./usr/lib/${multiarch})

# Each package: the files it must hold, and a pattern that none of its paths may match.
set(libquorlix1_holds ${libdir}/libquorlix.so.1)
set(libquorlix1_never "/include/|/bin/|/libquorlix\\.so( |\n)|\\.a\n")
set(libquorlix-dev_holds ./usr/include/quorlix/Quorlix.h ${libdir}/libquorlix.so
    ${libdir}/pkgconfig/quorlix.pc ${libdir}/cmake/Quorlix/QuorlixConfig.cmake)
set(libquorlix-dev_never "/bin/|/libquorlix\\.so\\.")
set(quorlix_holds ./usr/bin/quorlix ./usr/share/man/man1/quorlix.1.gz
    ./usr/lib/systemd/system/quorlix-publish.service ./usr/share/quorlix/quorlix-publish.default)
set(quorlix_never "/include/|/pkgconfig/|\\.so|quorlix-d")
set(quorlix-tools_holds ./usr/bin/quorlix-directory ./usr/share/man/man1/quorlix-directory.1.gz
    ./usr/bin/quorlix-demo ./usr/share/man/man1/quorlix-demo.1.gz ./usr/share/quorlix/devices.json
    ./usr/share/quorlix/scenarios/demo.json)
set(quorlix-tools_never "/include/|\\.so|/bin/quorlix\n")
set(qmldir ./usr/lib/${multiarch}/qt6/qml/Quorlix)
set(qml6-module-quorlix_holds ${qmldir}/qmldir ${qmldir}/libquorlix_quickplugin.so
    ${qmldir}/quorlix_quick.qmltypes)
set(qml6-module-quorlix_never "/include/|/bin/|/cmake/|/libquorlix\\.so|\\.a\n")
set(names libquorlix1 libquorlix-dev quorlix quorlix-tools qml6-module-quorlix)

file(GLOB debs ${packages}/*.deb)
file(GLOB ddebs ${packages}/*.ddeb)
list(LENGTH debs deb_count)
list(LENGTH ddebs ddeb_count)
# Debug symbols of everything that holds machine code: the library, the command, the tools, the
# QML plugin.
if(NOT deb_count EQUAL 5 OR NOT ddeb_count EQUAL 4)
    message(FATAL_ERROR "expected 5 packages and 4 -dbgsym packages, found: ${debs} ${ddebs}")
endif()
set(packaged "")
foreach(name IN LISTS names)
    file(GLOB deb ${packages}/${name}_*.deb)
    if(NOT deb)
        message(FATAL_ERROR "no package ${name} in ${packages}")
    endif()
    set(${name}_deb ${deb})
    run(listing dpkg-deb -c ${deb})
    message(STATUS "${deb}:\n${listing}")
    foreach(expected IN LISTS ${name}_holds ITEMS ./usr/share/doc/${name}/copyright
                     ./usr/share/doc/${name}/changelog.Debian.gz)
        if(NOT listing MATCHES " ${expected}( -> [^\n]*)?\n")
            message(FATAL_ERROR "${name} lacks ${expected}")
        endif()
    endforeach()
    if(listing MATCHES "${${name}_never}")
        message(FATAL_ERROR "${name} holds ${CMAKE_MATCH_0}, which belongs elsewhere")
    endif()
    # Files and links, not folders: a path in two packages makes dpkg refuse the second.
    string(REGEX MATCHALL " \\./[^\n]*[^/\n]\n" files "${listing}")
    foreach(file IN LISTS files)
        string(REGEX REPLACE "^ \\.(/[^ \n]*).*" "\\1" path "${file}")
        if(path IN_LIST packaged)
            message(FATAL_ERROR "${path} is in two packages")
        endif()
        list(APPEND packaged ${path})
    endforeach()
    run(${name}_depends dpkg-deb -f ${deb} Depends)
    message(STATUS "${name} depends on: ${${name}_depends}")
endforeach()

run(version dpkg-deb -f ${libquorlix1_deb} Version)
string(STRIP "${version}" version)
foreach(name_needs "libquorlix-dev:libquorlix1 (= ${version})" "libquorlix-dev:qt6-base-dev"
                   "quorlix-tools:libquorlix1 (= ${version})" "quorlix:libmosquitto1"
                   "quorlix:libqt6core6" "libquorlix1:libqt6widgets6"
                   "qml6-module-quorlix:libquorlix1 (= ${version})" "qml6-module-quorlix:libqt6qml6"
                   "qml6-module-quorlix:qml6-module-qtquick-controls")
    string(REGEX REPLACE ":.*" "" name "${name_needs}")
    string(REGEX REPLACE "^[^:]*:" "" needs "${name_needs}")
    string(FIND "${${name}_depends}" "${needs}" at)
    if(at EQUAL -1)
        message(FATAL_ERROR "${name} does not depend on ${needs}: ${${name}_depends}")
    endif()
endforeach()
foreach(name libquorlix1 quorlix quorlix-tools qml6-module-quorlix)
    if(${name}_depends MATCHES "[a-z0-9.+-]+-dev([ ,\n]|$)")
        message(FATAL_ERROR "${name} depends on the development package ${CMAKE_MATCH_0}")
    endif()
endforeach()

# apt resolves the command's package against an empty dpkg database with the machine's package
# lists: every package it would pull in, recommendations included, is named.
file(WRITE ${WORK_DIR}/empty-status "")
run(plan apt-get install --simulate -o Dir::State::status=${WORK_DIR}/empty-status ${quorlix_deb})
string(REGEX MATCHALL "\nInst [^ ]+" pulled "${plan}")
list(LENGTH pulled pulled_count)
message(STATUS "apt would install ${pulled_count} packages for quorlix:${pulled}")
if(pulled_count LESS 10 OR NOT pulled MATCHES "Inst libqt6core6")
    message(FATAL_ERROR "apt did not resolve the dependencies of quorlix:\n${plan}")
endif()
if(pulled MATCHES "Inst [^ ]+-dev")
    message(FATAL_ERROR "installing quorlix pulls in ${CMAKE_MATCH_0}:\n${plan}")
endif()

# Everything that a plain install puts in place is in some package.
run(ignored ${CMAKE_COMMAND} --install ${build} --prefix ${prefix})
file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE ${prefix} ${prefix}/*)
foreach(path IN LISTS installed)
    if(NOT "/usr/${path}" IN_LIST packaged)
        message(FATAL_ERROR "/usr/${path} is installed but in no package")
    endif()
endforeach()

# The unit of an install under another prefix starts that prefix's command; the package's, /usr's.
file(STRINGS ${prefix}/lib/systemd/system/quorlix-publish.service exec REGEX "^ExecStart=")
if(NOT exec MATCHES "^ExecStart=${prefix}/bin/quorlix ")
    message(FATAL_ERROR "the unit under ${prefix} runs ${exec}")
endif()
# It also checks that the unit's Documentation (man:quorlix(1)) is there.
run(verified ${CMAKE_COMMAND} -E env MANPATH=${prefix}/share/man: systemd-analyze verify
    ${prefix}/lib/systemd/system/quorlix-publish.service)

set(reads "")
foreach(folder src tools/quorlix)
    file(GLOB_RECURSE sources ${SOURCE_DIR}/${folder}/*.cpp ${SOURCE_DIR}/${folder}/*.h)
    foreach(source IN LISTS sources)
        file(STRINGS ${source} lines REGEX "\"QUORLIX_[A-Z_]+\"")
        string(REGEX MATCHALL "\"QUORLIX_[A-Z_]+\"" found "${lines}")
        list(APPEND reads ${found})
    endforeach()
endforeach()
list(REMOVE_DUPLICATES reads)
file(READ ${build}/tools/quorlix/quorlix.1 page)
string(REGEX REPLACE ".*\n\\.SH ENVIRONMENT\n(.*)\n\\.SH FILES\n.*" "\\1" environment "${page}")
foreach(variable IN LISTS reads)
    string(REPLACE "\"" "" variable "${variable}")
    if(NOT environment MATCHES "\n\\.B ${variable}\n")
        message(FATAL_ERROR "quorlix(1) does not describe ${variable} under ENVIRONMENT")
    endif()
endforeach()

file(MAKE_DIRECTORY ${root}/var/lib/dpkg/updates ${root}/var/lib/dpkg/info)
file(TOUCH ${root}/var/lib/dpkg/status)
# The scratch root has none of the dependencies; they are checked above instead.
set(dpkg dpkg --root=${root} --force-depends --force-script-chrootless)
run(ignored ${dpkg} -i ${debs})
file(STRINGS ${root}/usr/lib/systemd/system/quorlix-publish.service exec REGEX "^ExecStart=")
if(NOT exec MATCHES "^ExecStart=/usr/bin/quorlix ")
    message(FATAL_ERROR "the packaged unit runs ${exec}")
endif()
run(includedir pkg-config --with-path=${root}/usr/lib/${multiarch}/pkgconfig --variable=includedir quorlix)
string(STRIP "${includedir}" includedir)
if(NOT EXISTS ${includedir}/quorlix/Quorlix.h)
    message(FATAL_ERROR "quorlix.pc points at ${includedir}, which lacks quorlix/Quorlix.h")
endif()
# A host's QML engine finds the plugin's library in the system's folder, with no search path of
# the plugin's own (Qt's default one points below the QML folder).
run(dynamic readelf -d ${root}/${qmldir}/libquorlix_quickplugin.so)
if(dynamic MATCHES "RPATH|RUNPATH")
    message(FATAL_ERROR "the QML plugin has a library search path:\n${dynamic}")
endif()
file(MAKE_DIRECTORY ${WORK_DIR}/config)
execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=QUORLIX_CALIBRATION
                        QT_QPA_PLATFORM=offscreen XDG_CONFIG_HOME=${WORK_DIR}/config
                        LD_LIBRARY_PATH=${root}/usr/lib/${multiarch}
                        QUORLIX_LOCATION_SOURCE=simulate:${root}/usr/share/quorlix/scenarios/demo.json
                        ${QMLTESTRUNNER} -import ${root}/usr/lib/${multiarch}/qt6/qml
                        -input ${SOURCE_DIR}/tests/tools/DebianPackageImport.qml
                RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 60)
message(STATUS "import Quorlix from the packages:\n${out}${err}")
if(NOT result EQUAL 0)
    message(FATAL_ERROR "the installed QML module failed its test (${result})")
endif()

run(ignored ${dpkg} --purge ${names})
file(GLOB_RECURSE left LIST_DIRECTORIES false RELATIVE ${root} ${root}/usr/* ${root}/etc/*)
if(left)
    message(FATAL_ERROR "removing the packages left: ${left}")
endif()

# Every warning still reported is overridden in its package, with the reason beside the override
# (cmake/debian/*.lintian-overrides); --show-overrides would count those as failures.
# Until the pkg-config file drops -fPIC from its Cflags (a change of its own, under way), lintian's
# error about it is let through, loudly, and only while quorlix.pc.in still has it.
set(known "")
file(STRINGS ${SOURCE_DIR}/cmake/quorlix.pc.in fpic REGEX "^Cflags:.*-fPIC")
if(fpic)
    set(known --suppress-tags pkg-config-bad-directive)
    message(WARNING "lintian: pkg-config-bad-directive -fPIC in quorlix.pc is let through")
endif()
execute_process(COMMAND lintian --fail-on error,warning --display-info ${known}
                        ${debs} ${ddebs}
                RESULT_VARIABLE lintian_result OUTPUT_VARIABLE lintian_out ERROR_VARIABLE lintian_err
                TIMEOUT 900)
message(STATUS "lintian:\n${lintian_out}${lintian_err}")
if(NOT lintian_result EQUAL 0)
    message(FATAL_ERROR "lintian reports errors or warnings (${lintian_result})")
endif()
