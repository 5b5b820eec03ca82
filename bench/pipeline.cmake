# Items from logEvent through the store and the upload to the development service, against the
# upload alone; and the memory of a host after 100,000 captured items.
# apps/ is read after bench/, so the condition is the option; the target is linked by name.
if(KESTRO_BUILD_APPS)
    add_executable(bench_pipeline ${CMAKE_CURRENT_LIST_DIR}/pipeline_bench.cc)
    target_link_libraries(bench_pipeline PRIVATE kestro_facade kestro_devservice benchmark::benchmark
        CURL::libcurl)
endif()
