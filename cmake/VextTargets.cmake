# What every target of the project has in common: warnings, sanitizers and the
# strictness of Qt's string conversions.

add_library(vext_options INTERFACE)
target_compile_options(vext_options INTERFACE -Wall -Wextra -Wpedantic)
if(VEXT_WERROR)
  target_compile_options(vext_options INTERFACE -Werror)
endif()
target_compile_definitions(vext_options INTERFACE QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII
                                                  QT_DEPRECATED_WARNINGS)
if(VEXT_SANITIZE)
  target_compile_options(vext_options INTERFACE -fsanitize=${VEXT_SANITIZE}
                                                -fno-omit-frame-pointer)
  target_link_options(vext_options INTERFACE -fsanitize=${VEXT_SANITIZE})
endif()
if(VEXT_SANITIZE MATCHES "thread")
  target_compile_options(vext_options INTERFACE
    "SHELL:-include ${CMAKE_SOURCE_DIR}/tests/sanitizers/qt_atomics.h")
endif()

# What every test runs with: known reports about libraries that are built without the sanitizer are
# left out, everything else ends the test, and time limits are stretched.
set(VEXT_TEST_ENVIRONMENT "")
if(VEXT_SANITIZE)
  set(VEXT_SANITIZER_DIR ${CMAKE_SOURCE_DIR}/tests/sanitizers)
  # What the sanitizers of GCC 12 note of thread-local memory that is made late is not to be trusted:
  # of a block that happens to begin 16 bytes behind a page they take the size from the bytes before
  # it, as glibc 2.19 wrote it, and crash on a program without fault.
  set(VEXT_TSAN_OPTIONS suppressions=${VEXT_SANITIZER_DIR}/tsan.supp history_size=7 exitcode=66
                        intercept_tls_get_addr=0)
  string(REPLACE ";" ":" VEXT_TSAN_OPTIONS "${VEXT_TSAN_OPTIONS}")
  list(APPEND VEXT_TEST_ENVIRONMENT
    VEXT_TEST_TIME_FACTOR=5
    "TSAN_OPTIONS=${VEXT_TSAN_OPTIONS}"
    "LSAN_OPTIONS=suppressions=${VEXT_SANITIZER_DIR}/lsan.supp:print_suppressions=0"
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
endif()
if(VEXT_SANITIZE MATCHES "address")
  list(APPEND VEXT_TEST_ENVIRONMENT "ASAN_OPTIONS=intercept_tls_get_addr=0")
endif()

# vext_add_test(NAME SOURCES... [LIBS libs...] [LABELS labels...] [TIMEOUT seconds])
# One QtTest program, registered with ctest under its name.
function(vext_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES} ${ARG_UNPARSED_ARGUMENTS})
  set_target_properties(${name} PROPERTIES AUTOMOC ON
                                           RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  target_link_libraries(${name} PRIVATE vext_options Qt5::Test ${ARG_LIBS})
  target_compile_definitions(${name} PRIVATE
    VEXT_PLUGIN_FILE="$<TARGET_FILE:PluginSQL>"
    VEXT_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  add_dependencies(${name} PluginSQL VextDrivers)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} SKIP_RETURN_CODE 77
    ENVIRONMENT "LANGUAGE=ru;QT_LOGGING_RULES=default.debug=true;${VEXT_TEST_ENVIRONMENT}")
  if(ARG_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
endfunction()

# vext_ignore_lock_order(NAMES...): with ThreadSanitizer the order of locks is not looked at in these
# tests. Firebird's engine, which runs inside them, leaves locks behind for that part of the sanitizer
# when a statement fails; it runs full, and ends the program.
function(vext_ignore_lock_order)
  if(VEXT_SANITIZE MATCHES "thread")
    foreach(name ${ARGN})
      get_test_property(${name} ENVIRONMENT environment)
      string(REPLACE "${VEXT_TSAN_OPTIONS}" "${VEXT_TSAN_OPTIONS}:detect_deadlocks=0"
             environment "${environment}")
      set_tests_properties(${name} PROPERTIES ENVIRONMENT "${environment}")
    endforeach()
  endif()
endfunction()

# vext_add_second_run(NAME SUFFIX LABEL VARIABLES) runs a test program a second time, as NAME_SUFFIX,
# in another environment.
function(vext_add_second_run name suffix label variables)
  get_test_property(${name} TIMEOUT timeout)
  add_test(NAME ${name}_${suffix} COMMAND ${name})
  set_tests_properties(${name}_${suffix} PROPERTIES TIMEOUT ${timeout} SKIP_RETURN_CODE 77
    LABELS "${label}"
    ENVIRONMENT "${variables};QT_LOGGING_RULES=default.debug=true;${VEXT_TEST_ENVIRONMENT}")
endfunction()

# vext_add_layered_run(NAME): with the layer of drivers in front of the stock ones. What differs on
# purpose the program tells by VEXT_DRIVER_LAYER.
function(vext_add_layered_run name)
  vext_add_second_run(${name} layered drivers
    "QT_PLUGIN_PATH=${CMAKE_BINARY_DIR}/qtplugins;VEXT_DRIVER_LAYER=1")
endfunction()

# vext_add_sliced_run(NAME): with results that are converted in slices of a row while the worker
# reads, as it is usually done with large ones only.
function(vext_add_sliced_run name)
  vext_add_second_run(${name} sliced threads "LANGUAGE=ru;VEXT_TEST_SLICE_CELLS=1")
endfunction()
