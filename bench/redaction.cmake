# Capture through the real pipeline under the default redaction policy against redaction off.
add_executable(bench_redaction ${CMAKE_CURRENT_LIST_DIR}/redaction_bench.cc)
target_link_libraries(bench_redaction PRIVATE kestro_facade benchmark::benchmark)
