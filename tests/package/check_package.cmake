# Script run by the installed_package test: installs the library into a
# scratch folder, moves that folder elsewhere (so nothing may depend on the
# install path), then builds the example against the moved prefix with
# find_package and with pkg-config and runs both, and the installed tool,
# without LD_LIBRARY_PATH.
set(staging ${WORK_DIR}/staging)
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
unset(ENV{LD_LIBRARY_PATH})
separate_arguments(consumer_flags UNIX_COMMAND "${CONSUMER_FLAGS}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "Failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${staging})
file(RENAME ${staging} ${prefix})
foreach(header nerva/nerva.h linvo/linvo.h)
  if(NOT EXISTS ${prefix}/include/${header})
    message(FATAL_ERROR "${header} was not installed")
  endif()
endforeach()
# libnerva finds its liblinvo beside itself, whatever loads it.
file(GLOB libnerva ${prefix}/${LIBDIR}/libnerva.so.*.*)
file(READ_ELF ${libnerva} RUNPATH runpath RPATH rpath)
if(NOT "${runpath}${rpath}" STREQUAL "$ORIGIN")
  message(FATAL_ERROR "${libnerva} has RUNPATH '${runpath}' RPATH '${rpath}', expected '$ORIGIN'")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples -B ${WORK_DIR}/example
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release
    -DCMAKE_CXX_COMPILER=${CONSUMER_CXX} "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/example)
run(${WORK_DIR}/example/nerva_example)
message(STATUS "${last_output}")

# The same program through pkg-config.
set(ENV{PKG_CONFIG_PATH} "${prefix}/${LIBDIR}/pkgconfig")
run(pkg-config --cflags --libs nerva)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CONSUMER_CXX} -std=c++17 ${consumer_flags} ${SOURCE_DIR}/examples/main/main.cc ${flags}
    -o ${WORK_DIR}/example_pc)
run(${WORK_DIR}/example_pc)

if(EXISTS ${prefix}/${BINDIR}/nerva-info)
  run(${prefix}/${BINDIR}/nerva-info)
endif()
