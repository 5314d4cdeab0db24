# SPDX-License-Identifier: Apache-2.0
# What is installed besides the libraries and their headers: the CMake package, the pkg-config file,
# and the two Debian packages that `cpack -G DEB` makes of it all.
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
    DESTINATION ${package_dir} COMPONENT development)
install(EXPORT courier_hub_serialisation-targets
    DESTINATION ${package_dir} COMPONENT development)

# Relative to the file itself, so that an installed tree may be moved.
file(RELATIVE_PATH pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
if(BUILD_SHARED_LIBS)
    set(pc_cflags "")
else()
    set(pc_cflags "-DCOURIER_HUB_SERIALISATION_STATIC_DEFINE -DBEDROCK_STATIC_DEFINE")
endif()
configure_file(cmake/courier_hub_serialisation.pc.in courier_hub_serialisation.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/courier_hub_serialisation.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(PROJECT_IS_TOP_LEVEL)
    set(CPACK_PACKAGE_CONTACT "Courier maintainers <maintainers@courier.invalid>")
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
    set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
    set(CPACK_STRIP_FILES ON)
    set(CPACK_COMPONENTS_ALL runtime development)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME
        libcourier-hub-serialisation${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcourier-hub-serialisation-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libboost-dev (>= 1.74)")
    set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
    include(CPack)
endif()
