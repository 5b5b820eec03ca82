# Finding what Kestro's libraries link, so that the installed package finds the same.
#
# A dependency that an SDK library links (publicly or privately: the libraries are static, so a
# user's link needs both) is found with one of these instead of find_package /
# pkg_check_modules. Each finds it for the build and records the matching line for the
# installed package's configuration file (cmake/KestroInstall.cmake writes them all there), so
# the two cannot drift apart. A dependency found any other way and linked by an exported target
# makes the package check (scripts/check-package.sh) fail: its consumer links every exported
# target.
#
# Dependencies of tests, benchmarks and applications are found with plain find_package.

# kestro_find_package(<find_package arguments>): find_package, recorded as find_dependency
# (without REQUIRED, which find_dependency adds itself).
macro(kestro_find_package)
    find_package(${ARGV})
    set(_kestro_args ${ARGV})
    list(REMOVE_ITEM _kestro_args REQUIRED)
    list(JOIN _kestro_args " " _kestro_args)
    set_property(GLOBAL APPEND PROPERTY KESTRO_PACKAGE_CONFIG_LINES
        "find_dependency(${_kestro_args})")
endmacro()

# kestro_pkg_check_modules(<prefix> <module>...): the imported target PkgConfig::<prefix>.
macro(kestro_pkg_check_modules prefix)
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${ARGN})
    set(_kestro_modules ${ARGN})
    list(JOIN _kestro_modules " " _kestro_modules)
    set_property(GLOBAL APPEND PROPERTY KESTRO_PACKAGE_CONFIG_LINES
        "find_dependency(PkgConfig)"
        "pkg_check_modules(${prefix} REQUIRED QUIET IMPORTED_TARGET ${_kestro_modules})")
endmacro()
