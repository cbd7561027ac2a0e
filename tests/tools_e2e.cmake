# The newcomer's path, end to end: zfx-store writes the demo stores, zfx-gen prints their
# configuration text, and the text must equal the golden file byte for byte. Then the tools'
# command-line contract: exit codes and messages for what a user gets wrong.
# Arguments: STORE, GEN (the tools), EMULATOR (empty or the cross-run command), GOLDEN, WORK.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(run expect_rc)
  execute_process(COMMAND ${EMULATOR} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL expect_rc)
    message(FATAL_ERROR "${ARGN}: exit ${rc}, expected ${expect_rc}\nstdout: ${out}\nstderr: ${err}")
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

run(0 ${STORE} demo ${WORK}/demo)
execute_process(COMMAND ${EMULATOR} ${GEN} --prefix ${WORK}/demo OUTPUT_FILE ${WORK}/demo.txt RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "zfx-gen failed with ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${WORK}/demo.txt ${GOLDEN} RESULT_VARIABLE same)
if(NOT same EQUAL 0)
  execute_process(COMMAND diff -u ${GOLDEN} ${WORK}/demo.txt OUTPUT_VARIABLE diff)
  message(FATAL_ERROR "the demo's text differs from ${GOLDEN}:\n${diff}")
endif()

# Writing again over a store that holds records is refused, and --replace allows it.
run(1 ${STORE} demo ${WORK}/demo)
expect_text("${err}" "not empty (use --replace")
run(0 ${STORE} demo ${WORK}/demo --replace)
# dump shows every record; the debug store's logging level last.
run(0 ${STORE} dump ${WORK}/demo)
expect_text("${out}" "zoneset 2 \"disaster-recovery\" zones 2,2001,2500")
expect_text("${out}" "debug-level 3")
run(0 ${STORE} dump ${WORK}/demo --raw)
expect_text("${out}" "66 00 = ")

# What a user gets wrong: a missing store is an error with a message, not empty text.
run(1 ${GEN} --prefix ${WORK}/nothing-here)
expect_text("${err}" "nothing-here/zfx_startup_config: no store there")
run(1 ${GEN} --prefix ${WORK}/demo --debug-prefix ${WORK}/nothing-here)
run(1 ${STORE} dump ${WORK}/nothing-here)
run(2 ${GEN})
run(2 ${GEN} --prefix)
run(2 ${GEN} --bogus)
run(2 ${STORE})
run(2 ${STORE} frobnicate ${WORK}/x)
run(2 ${STORE} synth ${WORK}/x --zones 9000)
expect_text("${err}" "--zones takes a number from 0 to 8191")
run(2 ${STORE} dump ${WORK}/demo --replace)
run(0 ${GEN} --help)
expect_text("${out}" "exit status")
run(0 ${STORE} --help)
expect_text("${out}" "exit status")
