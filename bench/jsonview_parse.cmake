find_package(nlohmann_json REQUIRED)
add_executable(bench_jsonview_parse ${CMAKE_CURRENT_LIST_DIR}/jsonview_parse_bench.cc)
target_link_libraries(bench_jsonview_parse PRIVATE kestro_jsonview benchmark::benchmark
    nlohmann_json::nlohmann_json Boost::json)
# Third-party documents, read in place.
target_compile_definitions(bench_jsonview_parse PRIVATE
    KESTRO_BENCH_DATA_DIR="${PROJECT_SOURCE_DIR}/../shared/bench-data")
