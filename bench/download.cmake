# A 1 GiB download streamed through capture against the same without capture: time and peak
# memory, each case in a process of its own.
if(TARGET kestro_test_support)
    add_executable(bench_download ${CMAKE_CURRENT_LIST_DIR}/download_bench.cc)
    target_link_libraries(bench_download PRIVATE kestro_facade kestro_test_support
        benchmark::benchmark)
endif()
