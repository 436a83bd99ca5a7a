# chd_add_gtest(name LABEL label SOURCES ... LIBS ...): one GoogleTest executable, registered per test case.
include(GoogleTest)
function(chd_add_gtest name)
  cmake_parse_arguments(T "" "LABEL" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${name} PROPERTIES LABELS "${T_LABEL}" DISCOVERY_TIMEOUT 60)
endfunction()
