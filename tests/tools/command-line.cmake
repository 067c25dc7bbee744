# Runs a tool's command line and passes only when it exits with the status
# expected and its output (stdout and stderr) holds the text expected.
#   cmake -DRUN="tool^^arg^^arg" -DSTATUS=2 -DOUTPUT=text [-DBEFORE="tool^^arg"] -P command-line.cmake
# Arguments are separated by ^^, as ctest would split a list on semicolons.
# BEFORE runs first and must succeed (to make a file the command reads).
foreach(var RUN STATUS)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "command-line.cmake needs -D${var}")
    endif()
endforeach()
if(DEFINED BEFORE)
    string(REPLACE "^^" ";" before "${BEFORE}")
    execute_process(COMMAND ${before} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT status STREQUAL "0")
        message(FATAL_ERROR "${before} exited with ${status}\n${out}${err}")
    endif()
endif()
string(REPLACE "^^" ";" command "${RUN}")
execute_process(COMMAND ${command} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status STREQUAL "${STATUS}")
    message(FATAL_ERROR "${command}: exited with ${status}, not ${STATUS}\nstdout:\n${out}\nstderr:\n${err}")
endif()
if(DEFINED OUTPUT)
    string(FIND "${out}${err}" "${OUTPUT}" at)
    if(at EQUAL -1)
        message(FATAL_ERROR "${command}: expected \"${OUTPUT}\" in\nstdout:\n${out}\nstderr:\n${err}")
    endif()
endif()
