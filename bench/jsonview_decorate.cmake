add_executable(bench_jsonview_decorate ${CMAKE_CURRENT_LIST_DIR}/jsonview_decorate_bench.cc)
target_link_libraries(bench_jsonview_decorate PRIVATE kestro_jsonview benchmark::benchmark)
target_compile_definitions(bench_jsonview_decorate PRIVATE
    KESTRO_BENCH_DATA_DIR="${PROJECT_SOURCE_DIR}/../shared/bench-data")
