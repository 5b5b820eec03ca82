# Uploads per second the development service accepts with a dashboard following the live list,
# against none (and with fifty pages). apps/ is read after bench/, so the condition is the
# option; the target is linked by name.
if(KESTRO_BUILD_APPS)
    add_executable(bench_dashboard ${CMAKE_CURRENT_LIST_DIR}/dashboard_bench.cc)
    target_link_libraries(bench_dashboard PRIVATE kestro_devservice benchmark::benchmark)
endif()
