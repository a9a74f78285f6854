# Writes the quorlix(1) man page: the written page TEMPLATE with every command's own --help text in
# place of @COMMANDS@, so that the option lists never disagree with the program.
#   cmake -DPROGRAM=<quorlix> -DTEMPLATE=<quorlix.1.in> -DOUTPUT=<quorlix.1> -DVERSION=<x.y.z>
#         -P ManPage.cmake
foreach(var PROGRAM TEMPLATE OUTPUT VERSION)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "ManPage.cmake: ${var} is not set")
    endif()
endforeach()

function(help_of out)
    execute_process(COMMAND ${PROGRAM} ${ARGN} --help OUTPUT_VARIABLE text RESULT_VARIABLE code
                    TIMEOUT 30)
    if(NOT code EQUAL 0)
        message(FATAL_ERROR "${PROGRAM} ${ARGN} --help failed: ${code}")
    endif()
    # roff treats a leading dot or quote as a request, a backslash as an escape and "-" as a hyphen.
    string(REPLACE "\\" "\\e" text "${text}")
    string(REPLACE "-" "\\-" text "${text}")
    string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

set(COMMANDS "")
foreach(command scan watch record calibrate publish)
    help_of(text ${command})
    string(APPEND COMMANDS ".SS ${command}\n.nf\n${text}.fi\n")
endforeach()
string(REGEX REPLACE "\n$" "" COMMANDS "${COMMANDS}")
configure_file(${TEMPLATE} ${OUTPUT} @ONLY)
