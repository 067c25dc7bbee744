# Runs texprt-sim on a scenario that must be refused, and passes only when
# it exits with status 2 (an error in the scenario) and names the place and
# the problem the scenario's "# error: LINE: MESSAGE" comment gives.
#   cmake -DSIM=texprt-sim -DSCENARIO=file.yaml -P expect-error.cmake
file(STRINGS ${SCENARIO} expected REGEX "^# error: [0-9]+: ")
list(LENGTH expected count)
if(NOT count EQUAL 1)
    message(FATAL_ERROR "${SCENARIO}: needs exactly one '# error: LINE: MESSAGE' comment")
endif()
string(REGEX REPLACE "^# error: ([0-9]+): (.*)$" "\\1" line "${expected}")
string(REGEX REPLACE "^# error: ([0-9]+): (.*)$" "\\2" message "${expected}")
# file(STRINGS) gives a list, in which a message's semicolons are escaped.
string(REPLACE "\\;" ";" message "${message}")

execute_process(COMMAND ${SIM} run ${SCENARIO} --check --json
                RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status STREQUAL "2")
    message(FATAL_ERROR "texprt-sim exited with ${status}, not 2\nstdout:\n${out}\nstderr:\n${err}")
endif()
# A literal search: the message holds characters a pattern would read.
string(FIND "${err}" "${SCENARIO}:${line}: ${message}" at)
if(at EQUAL -1)
    message(FATAL_ERROR "expected on stderr:\n${SCENARIO}:${line}: ${message}\ngot:\n${err}")
endif()
