# One library target a folder, with its dependencies stated: vantrel_library(NAME SOURCES ... LINKS ...).
# Headers are included by their path below src/, so a wrong include shows as a missing link.

add_library(vantrel_options INTERFACE)
target_compile_options(vantrel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${VANTREL_WERROR}>:-Werror>)
target_include_directories(vantrel_options INTERFACE ${PROJECT_SOURCE_DIR}/src)
if(VANTREL_SANITIZE)
  # What is undefined ends the program, else its test would pass. The check of virtual tables reads through a pipe of its
  # own and is wrong where a test has used up all descriptors.
  target_compile_options(vantrel_options INTERFACE -fsanitize=${VANTREL_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize=vptr -fno-sanitize-recover=undefined)
  target_link_options(vantrel_options INTERFACE -fsanitize=${VANTREL_SANITIZE})
elseif(CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  target_compile_options(vantrel_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
endif()

# Tables of functions are bound at the start, and nothing can write to them from then on.
target_link_options(vantrel_options INTERFACE -Wl,-z,relro,-z,now)

function(vantrel_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(vantrel_${name} STATIC ${ARG_SOURCES})
  target_link_libraries(vantrel_${name} PUBLIC vantrel_options Threads::Threads ${ARG_LINKS})
endfunction()

function(vantrel_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE vantrel_options ${ARG_LINKS})
endfunction()

# A unit test program of one folder. Its cases are found when ctest runs. SERIAL: nothing runs beside them, for those
# that keep hundreds of threads waiting.
function(vantrel_test name)
  cmake_parse_arguments(ARG "SERIAL" "" "SOURCES;LINKS" ${ARGN})
  if(ARG_SERIAL)
    set(run PROPERTIES TIMEOUT 300 RUN_SERIAL TRUE)
  else()
    set(run PROPERTIES TIMEOUT 120)
  endif()
  add_executable(test_${name} ${ARG_SOURCES})
  target_include_directories(test_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(test_${name} PRIVATE vantrel_options ${ARG_LINKS} GTest::gtest GTest::gtest_main)
  gtest_discover_tests(test_${name} DISCOVERY_MODE PRE_TEST ${run}
    ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/support/tsan.supp")
endfunction()
