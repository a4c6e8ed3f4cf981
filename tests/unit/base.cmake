# What every plugin object shares: log lines, the script toolkit, call sites, host services.
foreach(name debug_line plugin_base static_enums call_site host_services)
  vext_add_test(test_${name}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${name}.cpp
    LIBS vext_sql_objects vext_test_support
    LABELS base)
endforeach()
