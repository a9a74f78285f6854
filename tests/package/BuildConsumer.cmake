# cmake -P script. Puts Quorlix into WORK_DIR/prefix, then builds and runs CONSUMER_DIR against that
# prefix only, once through find_package(Quorlix) and once through pkg-config. The consumer sets no
# C++ standard of its own (the library's usage requirements must bring C++20) and also compiles
# every C++ example of README.md.
#   MODE=install:      cmake --install BUILD_DIR (the library as this build made it)
#   MODE=subdirectory: a host project (HOST_DIR) that takes SOURCE_DIR into its tree (VIA
#                      add_subdirectory or fetchcontent, finding Qt itself QT_ORDER before, after or
#                      none), as a shared library when SHARED, builds only the library, runs a
#                      program linked to it in the build tree and, unless HOST_ONLY, installs.
#                      CONFIGURE_ONLY stops after CMake has generated the host's build.
foreach(var MODE WORK_DIR CONSUMER_DIR GENERATOR CXX_COMPILER README)
    if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
        message(FATAL_ERROR "BuildConsumer.cmake: ${var} is not set")
    endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

function(run step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${step} failed (${result})")
    endif()
endfunction()

set(make_program "")
if(MAKE_PROGRAM)
    set(make_program -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM})
endif()

if(MODE STREQUAL "install")
    run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
else()
    set(host_build ${WORK_DIR}/host-build)
    run("configure host" ${CMAKE_COMMAND} -S ${HOST_DIR} -B ${host_build} -G ${GENERATOR}
        ${make_program} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
        -DQUORLIX_SOURCE_DIR=${SOURCE_DIR} -DBUILD_SHARED_LIBS=${SHARED} -DQT_ORDER=${QT_ORDER}
        -DVIA=${VIA})
    if(CONFIGURE_ONLY)
        return()
    endif()
    run("build host" ${CMAKE_COMMAND} --build ${host_build})
    run("run host" ${host_build}/host)
    if(HOST_ONLY)
        return()
    endif()
    run("install from host" ${CMAKE_COMMAND} --install ${host_build} --prefix ${prefix})
    # The shared library carries its version in its SONAME and exports the API only.
    execute_process(COMMAND readelf -d ${prefix}/lib/libquorlix.so OUTPUT_VARIABLE dynamic)
    if(NOT dynamic MATCHES "SONAME[^\n]*libquorlix\\.so\\.1\\]")
        message(FATAL_ERROR "libquorlix.so has no SONAME libquorlix.so.1:\n${dynamic}")
    endif()
    execute_process(COMMAND nm -D -C --defined-only ${prefix}/lib/libquorlix.so
                    OUTPUT_VARIABLE exported)
    if(exported MATCHES "RegionEngine|DirectoryClient|Fatal::")
        message(FATAL_ERROR "libquorlix.so exports internal classes")
    endif()
endif()
foreach(installed IN LISTS EXPECTED)
    if(NOT EXISTS ${prefix}/${installed})
        message(FATAL_ERROR "install did not provide ${installed}")
    endif()
endforeach()
foreach(internal IN LISTS UNEXPECTED)
    if(EXISTS ${prefix}/${internal})
        message(FATAL_ERROR "install provides the internal ${internal}")
    endif()
endforeach()
# pkg-config names Qt by its modules (paths with a version break at Qt's next point release) and
# leaves code generation and the language standard to the consumer.
file(READ ${prefix}/lib/pkgconfig/quorlix.pc pc)
string(REGEX REPLACE "#[^\n]*" "" pc "${pc}")
if(pc MATCHES "(-fPIC|-std=|\\.so|/usr/)" OR NOT pc MATCHES "\nRequires: Qt6Core Qt6Widgets\n")
    message(FATAL_ERROR "quorlix.pc pins paths or flags (${CMAKE_MATCH_1}):\n${pc}")
endif()
file(GLOB targets_files ${prefix}/lib/cmake/Quorlix/QuorlixTargets*.cmake)
foreach(targets_file IN LISTS targets_files)
    file(READ ${targets_file} targets)
    if(targets MATCHES "\\$<LINK_ONLY:>")
        message(FATAL_ERROR "${targets_file} names an empty $<LINK_ONLY:>")
    endif()
endforeach()

# README's examples, each main() renamed so that all of them link into one program.
file(READ ${README} readme)
string(REPLACE ";" "<semicolon>" readme "${readme}")
string(REGEX MATCHALL "```cpp\n[^`]*```" blocks "${readme}")
set(examples_dir ${WORK_DIR}/readme-examples)
set(index 0)
foreach(block IN LISTS blocks)
    math(EXPR index "${index} + 1")
    string(REGEX REPLACE "^```cpp\n(.*)```$" "\\1" code "${block}")
    string(REPLACE "<semicolon>" ";" code "${code}")
    string(REPLACE "int main(" "int readmeExample${index}(" code "${code}")
    file(WRITE ${examples_dir}/example${index}.cpp "${code}")
endforeach()
if(index EQUAL 0)
    message(FATAL_ERROR "no C++ examples found in ${README}")
endif()

# CMAKE_FIND_USE_PACKAGE_REGISTRY off: the package must come from the prefix, not the build tree.
set(consumer_build ${WORK_DIR}/consumer-build)
run("configure consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${consumer_build}
    -G ${GENERATOR} ${make_program}
    -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    -DEXAMPLES_DIR=${examples_dir}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
run("build consumer" ${CMAKE_COMMAND} --build ${consumer_build})
run("run consumer" ${consumer_build}/consumer)

set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
# A static library's own dependencies come with --static, as for any library Debian ships.
set(static_flag "")
if(EXISTS ${prefix}/lib/libquorlix.a)
    set(static_flag --static)
endif()
execute_process(COMMAND pkg-config ${static_flag} --cflags --libs quorlix OUTPUT_VARIABLE flags
                RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config --cflags --libs quorlix failed")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(extra UNIX_COMMAND "${CXX_FLAGS} ${LINK_FLAGS}")
run("build consumer with pkg-config" ${CXX_COMPILER} -std=c++20 ${extra} ${CONSUMER_DIR}/main.cpp ${flags}
    -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/pkg-config-consumer)
run("run pkg-config consumer" ${WORK_DIR}/pkg-config-consumer)
