find_package(spdlog REQUIRED)
add_executable(bench_logging ${CMAKE_CURRENT_LIST_DIR}/logging_bench.cc)
target_link_libraries(bench_logging PRIVATE kestro_facade benchmark::benchmark spdlog::spdlog)
