# What the command-line test scripts share: run a program (under EMULATOR, after RUN_PREFIX when a
# script sets one) and check its exit status; look for a text in its output.
function(run expect_rc)
  execute_process(COMMAND ${EMULATOR} ${RUN_PREFIX} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL expect_rc)
    message(FATAL_ERROR "${RUN_PREFIX} ${ARGN}: exit ${rc}, expected ${expect_rc}\nstdout: ${out}\nstderr: ${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
  set(err "${err}" PARENT_SCOPE)
endfunction()

function(expect_text haystack needle)
  string(FIND "${haystack}" "${needle}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "expected '${needle}' in:\n${haystack}")
  endif()
endfunction()
