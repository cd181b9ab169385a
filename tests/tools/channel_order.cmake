# The file's red-first samples reach the library blue first and come back red
# first: a pure red image has the luminance of red (76 with the library's
# weights 4900/16384 for red, 29 were it taken for blue), and its inversion
# is cyan in the file. -DEXE=tool -DRED=red.png -DDIR=scratch directory
function(run)
  execute_process(COMMAND ${EXE} ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "quelvin ${ARGN}: exit ${code}\n${out}${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

file(MAKE_DIRECTORY ${DIR})
run(GetLuminance ${RED} ${DIR}/red_luminance.png)
run(info ${DIR}/red_luminance.png)
if(NOT out MATCHES "gray: +min +76 +mean +76.000 +max +76")
  message(FATAL_ERROR "luminance of red is not 76:\n${out}")
endif()
run(Invert ${RED} ${DIR}/red_inverted.png)
run(info ${DIR}/red_inverted.png)
if(NOT out MATCHES "R: +min +0 +mean +0.000 +max +0\nG: +min 255 .*\nB: +min 255 ")
  message(FATAL_ERROR "red inverted is not cyan:\n${out}")
endif()
