# SPDX-License-Identifier: Apache-2.0
# Adds to the Debian packages what is not installed otherwise. cpack runs this on its staged files;
# each component has a directory.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
    return()
endif()

# The symbols, which Debian.cmake adds to the control files. Fails if one that was listed is gone.
execute_process(
    COMMAND dpkg-gensymbols -p${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} -v${CPACK_PACKAGE_VERSION}
        -I${CMAKE_CURRENT_LIST_DIR}/symbols -P${CPACK_TEMPORARY_DIRECTORY}/runtime -c1 -O${CPACK_PACKAGE_DIRECTORY}/symbols
    COMMAND_ERROR_IS_FATAL ANY)

# Debian's changelog, which is about the packaging: the library's own is installed as it is.
string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(changelog ${CPACK_TEMPORARY_DIRECTORY}/changelog.Debian)
file(WRITE ${changelog}
    "libcourier-hub-serialisation (${version}) unstable; urgency=medium\n\n"
    "  * New upstream version.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${now}\n")

foreach(component ${CPACK_COMPONENTS_ALL})
    string(TOUPPER ${component} upper)
    set(doc_dir ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc)
    set(doc_dir ${doc_dir}/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    file(COPY ${changelog} ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${doc_dir}
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    execute_process(COMMAND gzip -9n ${doc_dir}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
endforeach()
