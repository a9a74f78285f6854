# cmake -P script: install BUILD_DIR into WORK_DIR/prefix, check that the EXPECTED files are there,
# then build and run CONSUMER_DIR against that prefix only.
foreach(var BUILD_DIR WORK_DIR CONSUMER_DIR GENERATOR CXX_COMPILER)
    if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
        message(FATAL_ERROR "BuildConsumer.cmake: ${var} is not set")
    endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
set(consumer_build ${WORK_DIR}/consumer-build)
file(REMOVE_RECURSE ${WORK_DIR})

function(run step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${step} failed (${result})")
    endif()
endfunction()

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(installed IN LISTS EXPECTED)
    if(NOT EXISTS ${prefix}/${installed})
        message(FATAL_ERROR "install did not provide ${installed}")
    endif()
endforeach()

set(make_program "")
if(MAKE_PROGRAM)
    set(make_program -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM})
endif()
# CMAKE_FIND_USE_PACKAGE_REGISTRY off: the package must come from the prefix, not the build tree.
run("configure consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${consumer_build}
    -G ${GENERATOR} ${make_program}
    -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
run("build consumer" ${CMAKE_COMMAND} --build ${consumer_build})
run("run consumer" ${consumer_build}/consumer)
