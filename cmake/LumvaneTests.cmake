# One line per test program: add_cpp_test(<name> SOURCES <files> LIBS <targets> [LABELS <labels>] [PREFIX <text>]).
# A test program is one ctest entry per test case, so that a failure names the case. A prefix tells cases apart that
# stand in several programs.
include(GoogleTest)

function(add_cpp_test name)
  cmake_parse_arguments(ARG "" "PREFIX" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} lumvane_options GTest::gtest GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/src)
  target_compile_definitions(${name} PRIVATE LUMVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  set(prefix)
  if(ARG_PREFIX)
    set(prefix TEST_PREFIX ${ARG_PREFIX})
  endif()
  gtest_discover_tests(
    ${name}
    ${prefix}
    DISCOVERY_TIMEOUT 60
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    PROPERTIES LABELS "unit;${ARG_LABELS}" TIMEOUT 300)
endfunction()
