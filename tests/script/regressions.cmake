# What once went wrong and must not again; each test is named after the promise that was broken.
vext_add_test(test_regressions
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_regressions.cpp
  LIBS vext_script_test
  LABELS script)
# The same with the plugin's code in the program, to set what only native code can.
vext_add_test(test_regressions_inside
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_regressions_inside.cpp ${CMAKE_CURRENT_LIST_DIR}/frame_host.h
  LIBS vext_sql_objects vext_test_support
  LABELS script)
