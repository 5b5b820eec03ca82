# The URL-loading layer and the upload against raw libcurl, on a loopback test server.
if(TARGET kestro_test_support)
    add_executable(bench_http ${CMAKE_CURRENT_LIST_DIR}/http_bench.cc)
    target_link_libraries(bench_http PRIVATE kestro_remote kestro_network kestro_test_support
        benchmark::benchmark CURL::libcurl)
endif()
