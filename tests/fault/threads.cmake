# The worker thread: its life, the tasks it must not lose, and what it costs the engine's thread.
find_package(Threads REQUIRED)

add_library(vext_thread_fixture STATIC
  ${CMAKE_CURRENT_LIST_DIR}/thread_fixture.cpp
  ${CMAKE_CURRENT_LIST_DIR}/thread_fixture.h
  ${CMAKE_CURRENT_LIST_DIR}/worker_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/worker_test.h)
set_target_properties(vext_thread_fixture PROPERTIES AUTOMOC ON)
target_include_directories(vext_thread_fixture PUBLIC
  ${CMAKE_CURRENT_LIST_DIR}
  $<TARGET_PROPERTY:vext_sql_objects,INTERFACE_INCLUDE_DIRECTORIES>)
# What ThreadSanitizer must know has to be in the program itself.
target_sources(vext_thread_fixture INTERFACE
  ${CMAKE_CURRENT_LIST_DIR}/../sanitizers/qt_method_hook.cpp)
target_link_libraries(vext_thread_fixture PUBLIC vext_test_support Threads::Threads
                                          PRIVATE vext_options)

foreach(name worker_thread worker_tasks worker_life worker_steps exactly_once responsiveness cancellation volume
             streamed_results)
  vext_add_test(test_${name}
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_${name}.cpp
    LIBS vext_thread_fixture vext_sql_objects vext_test_support
    LABELS threads
    TIMEOUT 300)
endforeach()

# Knows the library only as a host does, so that it can be unloaded.
vext_add_test(test_library_unload
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_library_unload.cpp
          ${CMAKE_CURRENT_LIST_DIR}/../sanitizers/qt_method_hook.cpp
  LIBS vext_test_support
  LABELS threads
  TIMEOUT 300)

# Once more with results that come in slices.
foreach(name exactly_once cancellation library_unload)
  vext_add_sliced_run(test_${name})
endforeach()
