if(TARGET kestro_imgui)
    add_executable(bench_inspector ${CMAKE_CURRENT_LIST_DIR}/inspector_bench.cc)
    target_link_libraries(bench_inspector PRIVATE kestro_imgui benchmark::benchmark)
endif()
