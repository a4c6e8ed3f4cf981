# Rooms without a thread, an engine's object or a database of their own.
foreach(room column_values local_clock records sql_text statement_rules driver_kind sql_call sql_call_property)
  vext_add_test(test_${room}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${room}.cpp
    LIBS vext_sql_objects vext_test_support
    LABELS unit
    TIMEOUT 300)
endforeach()

foreach(room task_queue thread_session)
  vext_add_test(test_${room}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${room}.cpp
    LIBS vext_sql_objects vext_test_support
    LABELS unit)
endforeach()
