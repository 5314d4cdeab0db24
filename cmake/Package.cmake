# SPDX-License-Identifier: Apache-2.0
# What is installed besides the libraries and their headers: the CMake package, the pkg-config file,
# and the Debian packages that `cpack -G DEB` makes of it all.
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

# The guides, and the programs whose lines they show. They link to each other as in the project.
install(FILES README.md SECURITY.md CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY docs examples
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    FILES_MATCHING
    REGEX "/docs/([^/]*|guides/.*)\\.(md|svg)$"
    REGEX "/examples/(quickstart|guides|modules)/.*"
    REGEX "/examples/(program|nats|roundtrip)$" EXCLUDE)

# Relative to the file itself, so that an installed tree may be moved, where no directory was given as
# an absolute one.
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

# The version of project() is the one that counts; the changelog has to follow.
if(PROJECT_IS_TOP_LEVEL)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md)
    file(STRINGS CHANGELOG.md newest REGEX "^## " LIMIT_COUNT 1)
    if(NOT newest STREQUAL "## ${PROJECT_VERSION}")
        message(FATAL_ERROR
            "CHANGELOG.md begins with \"${newest}\", but this is version ${PROJECT_VERSION}")
    endif()
endif()

if(PROJECT_IS_TOP_LEVEL AND BUILD_SHARED_LIBS)
    set(abi_version ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
    set(CPACK_PACKAGE_CONTACT "Courier maintainers <maintainers@courier.invalid>")
    set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
    set(CPACK_COMPONENTS_ALL runtime development)
    set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/Debian.cmake)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
    set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
    set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
    set(what "Byte buffers that adopt received blocks, streams that read them in
place, and a catalogue in which modules register how they encode and decode
their types.")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libcourier-hub-serialisation${abi_version})
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
    # The trigger runs ldconfig. cpack writes scripts that run it once more, unless it is told of some;
    # these do not exist, which makes it warn, and leave them out.
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/triggers
        no-such-script/postinst no-such-script/postrm)
    set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON) # this also strips the libraries
    set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${what}

This package has the shared libraries, and shows their types in gdb.")
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcourier-hub-serialisation-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libboost-dev (>= 1.74)")
    set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
    set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${what}

This package has the headers, and what CMake and pkg-config want to know.")
    include(CPack)
endif()
