if(TARGET kestro_imgui)
    add_executable(bench_imgui_viewer ${CMAKE_CURRENT_LIST_DIR}/imgui_viewer_bench.cc)
    target_link_libraries(bench_imgui_viewer PRIVATE kestro_imgui benchmark::benchmark)
    # Third-party documents, read in place.
    target_compile_definitions(bench_imgui_viewer PRIVATE
        KESTRO_BENCH_DATA_DIR="${PROJECT_SOURCE_DIR}/../shared/bench-data")
endif()
