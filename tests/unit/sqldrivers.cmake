# What the decorated drivers read in a statement's text: pure, so it needs none of their library.
foreach(name sql_scanner statement_plan)
  vext_add_test(test_${name}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${name}.cpp
            ${CMAKE_SOURCE_DIR}/sqldrivers/sql_dialect.cpp
            ${CMAKE_SOURCE_DIR}/sqldrivers/sql_scanner.cpp
            ${CMAKE_SOURCE_DIR}/sqldrivers/statement_head.cpp
            ${CMAKE_SOURCE_DIR}/sqldrivers/statement_plan.cpp
    LIBS vext_test_support
    LABELS unit drivers)
  target_include_directories(test_${name} PRIVATE ${CMAKE_SOURCE_DIR}/sqldrivers)
endforeach()

# How values are changed between the stock driver and the reader.
vext_add_test(test_column_rule
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_column_rule.cpp
          ${CMAKE_SOURCE_DIR}/sqldrivers/column_rule.cpp
  LIBS Qt5::Sql
  LABELS unit drivers)
target_include_directories(test_column_rule PRIVATE ${CMAKE_SOURCE_DIR}/sqldrivers)

# Who ends a statement whose time is over, and when.
vext_add_test(test_statement_limit
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_statement_limit.cpp
          ${CMAKE_SOURCE_DIR}/sqldrivers/cancel_gate.cpp
          ${CMAKE_SOURCE_DIR}/sqldrivers/deadline_watch.cpp
  LIBS Qt5::Core
  LABELS unit drivers threads)
target_include_directories(test_statement_limit PRIVATE ${CMAKE_SOURCE_DIR}/sqldrivers)
