# Included by CTest for one test binary (TEST_INCLUDE_FILES; the variables
# come from the include file that tests/CMakeLists.txt generates). Declares:
#   <area>.run          the whole binary in one process (run_binary.sh),
#   <area>.<Suite.Case> one test per GoogleTest case, reporting its result,
#   <area>.exit         how the binary's process ended.
# The case list comes from --gtest_list_tests and is refreshed when the
# binary is newer than it.
if(NOT EXISTS "${CASES_FILE}" OR "${BINARY}" IS_NEWER_THAN "${CASES_FILE}")
  execute_process(COMMAND "${BINARY}" --gtest_list_tests
    OUTPUT_VARIABLE listing RESULT_VARIABLE status TIMEOUT 120)
  set(script "")
  if(NOT status EQUAL 0)
    string(APPEND script "add_test([==[${AREA}.list]==] \"${BINARY}\" --gtest_list_tests)\n")
  else()
    set(script "add_test([==[${AREA}.run]==] bash [==[${SCRIPTS}/run_binary.sh]==] [==[${BINARY}]==] [==[${RESULTS}]==])
set_tests_properties([==[${AREA}.run]==] PROPERTIES FIXTURES_SETUP ${AREA} LABELS ${AREA} TIMEOUT 3600)
add_test([==[${AREA}.exit]==] sh [==[${SCRIPTS}/check_exit.sh]==] [==[${RESULTS}]==])
set_tests_properties([==[${AREA}.exit]==] PROPERTIES FIXTURES_CLEANUP ${AREA} LABELS ${AREA})
")
    # Drop the "# GetParam() = ..." notes, then read suite lines ("Suite.")
    # and case lines ("  Case").
    string(REGEX REPLACE "[ \t]+#[^\n]*" "" listing "${listing}")
    string(REPLACE ";" "" listing "${listing}")
    string(REPLACE "\n" ";" lines "${listing}")
    set(suite "")
    foreach(line IN LISTS lines)
      if(line MATCHES "^([^ ].*)\\.$")
        set(suite "${CMAKE_MATCH_1}")
      elseif(line MATCHES "^  ([^ ].*)$" AND NOT "${suite}.${line}" MATCHES "DISABLED_")
        string(STRIP "${line}" case)
        set(name "${suite}.${case}")
        string(APPEND script "add_test([==[${AREA}.${name}]==] sh [==[${SCRIPTS}/check_case.sh]==] [==[${RESULTS}]==] [==[${name}]==])
set_tests_properties([==[${AREA}.${name}]==] PROPERTIES FIXTURES_REQUIRED ${AREA} LABELS ${AREA} SKIP_RETURN_CODE 77)
")
      endif()
    endforeach()
  endif()
  file(WRITE "${CASES_FILE}" "${script}")
endif()
include("${CASES_FILE}")
