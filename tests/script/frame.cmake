# How the plugin meets a host and its scripts: the library, its installation, the constructor and the
# connection object with everything that needs no queued statement.

# Loads the library as a host does; must not contain its code itself.
vext_add_test(test_plugin_entry
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_plugin_entry.cpp ${CMAKE_CURRENT_LIST_DIR}/meta_table.h
  LIBS vext_test_support
  LABELS frame)

# Links no library of Qt's that it does not need itself, as a host in a process of its own.
add_executable(vext_bare_host ${CMAKE_CURRENT_LIST_DIR}/bare_host.cpp
                              ${CMAKE_CURRENT_LIST_DIR}/../support/sanitizer_hooks.cpp)
target_link_libraries(vext_bare_host PRIVATE Qt5::Core Qt5::Script vext_options)
target_compile_definitions(test_plugin_entry PRIVATE
  VEXT_BARE_HOST="$<TARGET_FILE:vext_bare_host>")
add_dependencies(test_plugin_entry vext_bare_host)

foreach(name connection_object install constructor connection connection_open introspection
        notifications bad_input ends)
  vext_add_test(test_${name}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${name}.cpp ${CMAKE_CURRENT_LIST_DIR}/connection_test.h
            ${CMAKE_CURRENT_LIST_DIR}/frame_host.h ${CMAKE_CURRENT_LIST_DIR}/meta_table.h
    LIBS vext_sql_objects vext_test_support
    LABELS frame)
endforeach()

# Once more with results that come in slices.
vext_add_sliced_run(test_ends)
