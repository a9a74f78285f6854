# Writes the quorlix(1) man page from the program's own --help texts:
#   cmake -DPROGRAM=<quorlix> -DOUTPUT=<quorlix.1> -DVERSION=<x.y.z> -P ManPage.cmake
function(help_of out)
    execute_process(COMMAND ${PROGRAM} ${ARGN} --help OUTPUT_VARIABLE text RESULT_VARIABLE code
                    TIMEOUT 30)
    if(NOT code EQUAL 0)
        message(FATAL_ERROR "${PROGRAM} ${ARGN} --help failed: ${code}")
    endif()
    # roff treats a leading dot or quote as a request and a backslash as an escape.
    string(REPLACE "\\" "\\e" text "${text}")
    string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

help_of(overview)
set(page ".TH QUORLIX 1 \"\" \"quorlix ${VERSION}\" \"User Commands\"\n")
string(APPEND page ".SH NAME\nquorlix \\- Bluetooth LE proximity beacons from a shell\n")
string(APPEND page ".SH SYNOPSIS\n.B quorlix\n.I command\n[options]\n")
string(APPEND page ".SH DESCRIPTION\n.nf\n${overview}.fi\n.SH COMMANDS\n")
foreach(command scan watch record calibrate publish)
    help_of(text ${command})
    string(APPEND page ".SS ${command}\n.nf\n${text}.fi\n")
endforeach()
string(APPEND page ".SH ENVIRONMENT\n.TP\n.B QUORLIX_DIRECTORY_HOST\nhost[:port] of the directory "
       "service when --directory is not given.\n.TP\n.B QUORLIX_CALIBRATION\nThe calibration "
       "file: measured powers, path-loss exponent, band limits, exit period.\n")
string(APPEND page ".SH FILES\n.TP\n.I /etc/default/quorlix-publish\nSettings of the "
       "quorlix-publish systemd service (an example is in /usr/share/quorlix/).\n")
file(WRITE ${OUTPUT} "${page}")
