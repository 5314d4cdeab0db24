# SPDX-License-Identifier: Apache-2.0
# What is installed besides the libraries and their headers: the CMake package, the pkg-config file,
# and the guides.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/courier_hub_serialisation)
configure_package_config_file(
    cmake/courier_hub_serialisation-config.cmake.in courier_hub_serialisation-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(courier_hub_serialisation-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
        ${CMAKE_CURRENT_BINARY_DIR}/courier_hub_serialisation-config.cmake
        ${CMAKE_CURRENT_BINARY_DIR}/courier_hub_serialisation-config-version.cmake
        cmake/CourierModule.cmake
    DESTINATION ${package_dir} COMPONENT development)
install(EXPORT courier_hub_serialisation-targets
    DESTINATION ${package_dir} COMPONENT development)

# The guides, and the examples. They link to each other as in the project.
install(FILES README.md SECURITY.md CHANGELOG.md CONTRIBUTING.md LICENSE
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.md")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    PATTERN nats EXCLUDE)

# Relative to the file itself, so that an installed tree can be moved, unless the library directory is
# absolute.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
    set(pc_to_prefix /prefix)
    cmake_path(RELATIVE_PATH pc_to_prefix BASE_DIRECTORY /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    set(pc_prefix "\${pcfiledir}/${pc_to_prefix}")
endif()
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
if(BUILD_SHARED_LIBS)
    set(pc_cflags "")
else()
    set(pc_cflags "-DCOURIER_HUB_SERIALISATION_STATIC_DEFINE -DBEDROCK_STATIC_DEFINE")
endif()
configure_file(cmake/courier_hub_serialisation.pc.in courier_hub_serialisation.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/courier_hub_serialisation.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# The version is that of project(); the changelog must agree.
if(PROJECT_IS_TOP_LEVEL)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md)
    file(STRINGS CHANGELOG.md newest REGEX "^## " LIMIT_COUNT 1)
    if(NOT newest MATCHES "^## (Unreleased|${PROJECT_VERSION})$")
        message(FATAL_ERROR
            "CHANGELOG.md begins with \"${newest}\", but this is version ${PROJECT_VERSION}")
    endif()
endif()
