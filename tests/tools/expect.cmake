# Runs the quelvin tool once and checks its exit code and what it printed.
# -DEXE=tool -DARGS="a@@b@@c" -DCODE=n -DMATCH=regex [-DNOMATCH=regex]
string(REPLACE "@@" ";" argv "${ARGS}")
execute_process(COMMAND ${EXE} ${argv} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
set(all "${out}${err}")
if(NOT code STREQUAL "${CODE}")
  message(FATAL_ERROR "exit code ${code}, expected ${CODE}; output:\n${all}")
endif()
if(DEFINED MATCH AND NOT all MATCHES "${MATCH}")
  message(FATAL_ERROR "output does not match '${MATCH}':\n${all}")
endif()
if(DEFINED NOMATCH AND all MATCHES "${NOMATCH}")
  message(FATAL_ERROR "output matches '${NOMATCH}':\n${all}")
endif()
# A crash (signal) is never an acceptable way to fail.
if(all MATCHES "Sanitizer|runtime error")
  message(FATAL_ERROR "sanitizer report:\n${all}")
endif()
