# From a statement in a script to its result: execution, conversion, delivery and the two functions
# that queue work. What scripts and the host can see is tested with the plugin loaded as a host
# loads it; only the delivery test is linked with the plugin's objects, to hand records in itself.
add_library(vext_script_test STATIC
  ${CMAKE_CURRENT_LIST_DIR}/script_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/script_test.h)
set_target_properties(vext_script_test PROPERTIES AUTOMOC ON)
target_include_directories(vext_script_test PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_compile_definitions(vext_script_test PRIVATE VEXT_PLUGIN_FILE="$<TARGET_FILE:PluginSQL>")
target_link_libraries(vext_script_test PUBLIC vext_test_support PRIVATE vext_options)

foreach(name statements statement_safety results repeated_results hostile_prototypes message_lines conversion query_thread exec_thread)
  vext_add_test(test_${name}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${name}.cpp
    LIBS vext_script_test
    LABELS script)
endforeach()
vext_add_test(test_delivery
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_delivery.cpp
  LIBS vext_sql_objects vext_script_test
  LABELS script)

# Once more with results that come in slices.
foreach(name results conversion delivery)
  vext_add_sliced_run(test_${name})
endforeach()
