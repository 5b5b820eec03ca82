# Installs the libraries, their headers and a package configuration, so that a CMake project
# can find_package(Kestro) and link Kestro::kestro.
#
# Every library target defined under src/kestro is exported, as Kestro::<name> for a target
# named kestro_<name> (Kestro::kestro for the umbrella), which are also the names the build
# tree's aliases give a project that uses Kestro through add_subdirectory. A new library is
# therefore exported without being listed anywhere; one named otherwise stops the configuration.
# Kestro_TARGETS lists them all, in the package configuration and, for add_subdirectory, in the
# including project.
include(CMakePackageConfigHelpers)

function(_kestro_library_targets dir out)
    get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
    get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
    set(found)
    foreach(target IN LISTS targets)
        get_target_property(type ${target} TYPE)
        if(type MATCHES "_LIBRARY$")
            list(APPEND found ${target})
        endif()
    endforeach()
    foreach(subdir IN LISTS subdirs)
        _kestro_library_targets(${subdir} more)
        list(APPEND found ${more})
    endforeach()
    set(${out} ${found} PARENT_SCOPE)
endfunction()

_kestro_library_targets(${PROJECT_SOURCE_DIR}/src/kestro _kestro_targets)
set(_kestro_exported)
# The drawing layer needs Dear ImGui (and its SDL integration SDL2): each has an export set of
# its own (below), so that the core package never requires either.
list(REMOVE_ITEM _kestro_targets kestro_imgui kestro_imgui_sdl)
foreach(target IN LISTS _kestro_targets)
    if(target STREQUAL "kestro")
        set(name kestro)
    elseif(target MATCHES "^kestro_(.+)$")
        set(name ${CMAKE_MATCH_1})
    else()
        message(FATAL_ERROR "The library ${target} under src/kestro is not named kestro_<name>, "
                            "so it cannot be exported as Kestro::<name>")
    endif()
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
    if(NOT TARGET Kestro::${name})
        add_library(Kestro::${name} ALIAS ${target})
    endif()
    list(APPEND _kestro_exported Kestro::${name})
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

get_property(_kestro_lines GLOBAL PROPERTY KESTRO_PACKAGE_CONFIG_LINES)
list(REMOVE_DUPLICATES _kestro_lines)
list(JOIN _kestro_lines "\n" KESTRO_FIND_DEPENDENCIES)
set(KESTRO_EXPORTED_TARGETS "${_kestro_exported}")
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KestroConfig.cmake.in
    ${PROJECT_BINARY_DIR}/KestroConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kestro)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KestroConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KestroConfig.cmake ${PROJECT_BINARY_DIR}/KestroConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Kestro)

if(NOT PROJECT_IS_TOP_LEVEL)
    foreach(name imgui imgui_sdl)
        if(TARGET kestro_${name})
            list(APPEND _kestro_exported Kestro::${name})
        endif()
    endforeach()
    set(Kestro_TARGETS ${_kestro_exported} PARENT_SCOPE)
endif()
