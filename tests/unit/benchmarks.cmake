# What the benchmarks conclude from their figures.
vext_add_test(test_bench_verdict
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_bench_verdict.cpp
          ${CMAKE_SOURCE_DIR}/benchmarks/verdict.cpp
  LABELS unit)
target_include_directories(test_bench_verdict PRIVATE ${CMAKE_SOURCE_DIR}/benchmarks)
