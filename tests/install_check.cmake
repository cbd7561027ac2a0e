# Installs the build into a scratch prefix, then builds a C program against it twice, each time
# as the README says, and runs it: through pkg-config (its flags, and an rpath to the library
# directory it names) and through the CMake package. Catches broken install rules, and a README
# whose program builds but does not start.
# Arguments: BUILD, SOURCE, WORK, CC, CFLAGS (as a list), EMULATOR, TOOLCHAIN (may be empty).
file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)

function(check)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${ARGN}: exit ${rc}\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

check(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
file(GLOB pc ${prefix}/lib*/pkgconfig/libzfx.pc)
if(NOT pc)
  message(FATAL_ERROR "no libzfx.pc installed")
endif()
get_filename_component(pcdir ${pc} DIRECTORY)
string(REPLACE ";" " " flags "${CFLAGS}")
# The README's commands as a shell runs them, word for word but for the prefix, the compiler with
# the build's flags, and the file names.
check(sh -c "export PKG_CONFIG_PATH=${pcdir}
${CC} ${flags} ${SOURCE}/tests/install/consumer.c -o ${WORK}/consumer $(pkg-config --cflags --libs libzfx) -Wl,-rpath,$(pkg-config --variable=libdir libzfx)")

function(answers program)
  check(${EMULATOR} ${program})
  if(NOT out STREQUAL "1-5,9 1\n")
    message(FATAL_ERROR "the installed library answered '${out}' to ${program}")
  endif()
endfunction()
answers(${WORK}/consumer)

set(toolchain)
if(TOOLCHAIN)
  set(toolchain -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
endif()
check(${CMAKE_COMMAND} -S ${SOURCE}/tests/install -B ${WORK}/consumer-build -DCMAKE_PREFIX_PATH=${prefix}
      -DCMAKE_C_COMPILER=${CC} "-DCMAKE_C_FLAGS=${flags}" ${toolchain})
check(${CMAKE_COMMAND} --build ${WORK}/consumer-build)
# CMake records the imported libraries' directory in the program it builds.
answers(${WORK}/consumer-build/consumer)
