add_executable(bench_store_trim ${CMAKE_CURRENT_LIST_DIR}/store_trim_bench.cc)
target_link_libraries(bench_store_trim PRIVATE kestro_store benchmark::benchmark)
