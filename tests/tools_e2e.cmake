# The newcomer's path, end to end: zfx-store writes the demo stores, zfx-gen prints their
# configuration text, and the text must equal the golden file byte for byte. Then the tools'
# command-line contract: exit codes and messages for what a user gets wrong.
# Arguments: STORE, GEN (the tools), EMULATOR (empty or the cross-run command), GOLDEN, WORK.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

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

# The loader: the golden text loads into stores that print it again, byte for byte.
run(0 ${STORE} load ${GOLDEN} ${WORK}/loaded)
execute_process(COMMAND ${EMULATOR} ${GEN} --prefix ${WORK}/loaded OUTPUT_FILE ${WORK}/loaded.txt RESULT_VARIABLE rc)
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${WORK}/loaded.txt ${GOLDEN} RESULT_VARIABLE same)
if(NOT rc EQUAL 0 OR NOT same EQUAL 0)
  message(FATAL_ERROR "the golden text, loaded and generated again, differs")
endif()
# Bad input names its file and line, and writes nothing: not into a new store, not into an old one.
file(WRITE ${WORK}/bad.txt "feature zfx\nzfx nat\nzfx zone name z\n  member pwwn 20:00:00:11:22:33:44:55 vsan 4096\n")
run(1 ${STORE} load ${WORK}/bad.txt ${WORK}/bad)
expect_text("${err}" "bad.txt:4: VSAN 4096 is out of range")
if(EXISTS ${WORK}/bad/zfx_startup_config)
  message(FATAL_ERROR "a refused load created a store")
endif()
run(0 ${STORE} dump ${WORK}/loaded --raw)
set(before "${out}")
run(1 ${STORE} load ${WORK}/bad.txt ${WORK}/loaded --replace)
run(1 ${STORE} load ${GOLDEN} ${WORK}/loaded)
expect_text("${err}" "not empty")
run(0 ${STORE} dump ${WORK}/loaded --raw)
if(NOT out STREQUAL before)
  message(FATAL_ERROR "a refused load changed the store")
endif()
run(1 ${STORE} load ${WORK}/no-such-file.txt ${WORK}/x)
expect_text("${err}" "no-such-file.txt: cannot read the file")
run(2 ${STORE} load ${GOLDEN})

# A switch's whole configuration, as an operator saved it: other features' lines around the zfx
# ones, comments, tab indentation, upper-case WWNs. It is refused at its first foreign line, and
# with --skip-foreign loads into the demo's stores, saying how many lines it skipped.
get_filename_component(golden_dir ${GOLDEN} DIRECTORY)
set(SWITCH ${golden_dir}/switch-config.txt)
run(1 ${STORE} load ${SWITCH} ${WORK}/switch)
expect_text("${err}" "switch-config.txt:4: not a line of the zfx configuration")
run(2 ${STORE} dump ${WORK}/demo --skip-foreign)
run(0 ${STORE} load ${SWITCH} ${WORK}/switch --skip-foreign)
expect_text("${err}" "zfx-store: skipped 15 lines of other features")
execute_process(COMMAND ${EMULATOR} ${GEN} --prefix ${WORK}/switch OUTPUT_FILE ${WORK}/switch.txt RESULT_VARIABLE rc)
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${WORK}/switch.txt ${GOLDEN} RESULT_VARIABLE same)
if(NOT rc EQUAL 0 OR NOT same EQUAL 0)
  message(FATAL_ERROR "the switch configuration, loaded with --skip-foreign, does not generate the demo's text")
endif()
