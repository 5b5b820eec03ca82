add_executable(bench_store ${CMAKE_CURRENT_LIST_DIR}/store_bench.cc)
target_link_libraries(bench_store PRIVATE kestro_store benchmark::benchmark SQLite::SQLite3 Boost::json)
