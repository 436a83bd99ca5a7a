# chd_add_gtest(name LABEL label... SOURCES ... LIBS ...): one GoogleTest executable, registered per test case.
include(GoogleTest)
function(chd_add_gtest name)
  cmake_parse_arguments(T "" "" "LABEL;SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest_main Threads::Threads)
  # Labels go on the executable's tests after discovery; a list inside PROPERTIES would be split.
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${T_LABEL}")
endfunction()
