# How the plugin meets a host and its scripts: the library, its installation, the constructor and the
# connection object with everything that needs no queued statement.

foreach(name connection_object install constructor connection introspection notifications)
  vext_add_test(test_${name}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${name}.cpp ${CMAKE_CURRENT_LIST_DIR}/frame_host.h
            ${CMAKE_CURRENT_LIST_DIR}/meta_table.h
    LIBS vext_sql_objects vext_test_support
    LABELS frame)
endforeach()
