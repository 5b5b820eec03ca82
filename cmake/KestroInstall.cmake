# Installs the libraries, their headers and a package configuration, so that a CMake project
# can find_package(Kestro) and link Kestro::kestro.
include(CMakePackageConfigHelpers)

set(_kestro_targets kestro)
foreach(sub IN LISTS KESTRO_SUBSYSTEMS)
    # The drawing layer needs Dear ImGui: it gets an export set of its own (below), so that the
    # core package never requires ImGui.
    if(TARGET kestro_${sub} AND NOT sub STREQUAL "imgui")
        list(APPEND _kestro_targets kestro_${sub})
    endif()
endforeach()

install(TARGETS ${_kestro_targets} EXPORT KestroTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Folders named internal hold what only their subsystem uses: they are not installed.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/kestro DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h" PATTERN "internal" EXCLUDE)
install(EXPORT KestroTargets NAMESPACE Kestro:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kestro)

# Kestro::imgui, for hosts that draw Dear ImGui: find_package(Kestro COMPONENTS imgui). The
# package configuration loads it only when ImGui and FreeType are found.
if(TARGET kestro_imgui)
    set_target_properties(kestro_imgui PROPERTIES EXPORT_NAME imgui)
    install(TARGETS kestro_imgui EXPORT KestroImGuiTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(EXPORT KestroImGuiTargets NAMESPACE Kestro::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kestro)
endif()
# Kestro::imgui_sdl, the SDL2 integration beside it (loaded where SDL2 and OpenGL are found).
if(TARGET kestro_imgui_sdl)
    set_target_properties(kestro_imgui_sdl PROPERTIES EXPORT_NAME imgui_sdl)
    install(TARGETS kestro_imgui_sdl EXPORT KestroImGuiSDLTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(EXPORT KestroImGuiSDLTargets NAMESPACE Kestro::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kestro)
endif()

set(KESTRO_EXTRA_FIND_DEPENDENCIES "${KESTRO_PACKAGE_DEPENDENCIES}")
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KestroConfig.cmake.in
    ${PROJECT_BINARY_DIR}/KestroConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kestro)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KestroConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KestroConfig.cmake ${PROJECT_BINARY_DIR}/KestroConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kestro)
