# Network capture against the same requests without it, the layer against raw libcurl, and the
# mock-rule lookup against a regular expression per rule, on a loopback test server.
if(TARGET kestro_test_support)
    add_executable(bench_interceptor ${CMAKE_CURRENT_LIST_DIR}/interceptor_bench.cc)
    target_link_libraries(bench_interceptor PRIVATE kestro_network kestro_test_support
        benchmark::benchmark CURL::libcurl)
endif()
