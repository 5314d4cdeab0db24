# SPDX-License-Identifier: Apache-2.0
# The Debian packages that `cpack -G DEB` makes of what is installed.
set(abi_version ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(CPACK_PACKAGE_CONTACT "Courier maintainers <maintainers@courier.invalid>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/stage.cmake)
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
# Debian wants the trigger, which runs ldconfig. The scripts that cpack generates run it again.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/triggers ${PROJECT_BINARY_DIR}/symbols)
set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON) # this also strips the libraries
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${what}

This package has the shared libraries, and shows their types in gdb.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcourier-hub-serialisation-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libboost-dev (>= 1.74)")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${what}

This package has the headers, and the files for CMake and pkg-config.")
include(CPack)
