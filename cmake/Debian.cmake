# SPDX-License-Identifier: Apache-2.0
# What a Debian package has besides the installed files. cpack runs this on its staged files, of each
# component in a directory of its own.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
    return()
endif()
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH source_dir)

# The libraries come to lie where the loader looks anyway.
file(GLOB libraries ${CPACK_TEMPORARY_DIRECTORY}/runtime/usr/lib/lib*.so.*
    ${CPACK_TEMPORARY_DIRECTORY}/runtime/usr/lib/*/lib*.so.*)
foreach(library ${libraries})
    if(NOT IS_SYMLINK ${library})
        file(RPATH_REMOVE FILE ${library})
    endif()
endforeach()

# Debian's changelog: the newest section of ours, dated by the packaging.
file(READ ${source_dir}/CHANGELOG.md changes)
string(REGEX REPLACE "^.*\n## ${CPACK_PACKAGE_VERSION}\n+" "" changes "\n${changes}")
string(REGEX REPLACE "\n## .*" "" changes "${changes}")
string(REGEX REPLACE "\n  +" " " changes "${changes}") # one line for each change
string(REGEX REPLACE "(^|\n+)(- )?([^\n]+)" "\n* \\3" changes "${changes}")
set(changelog ${CPACK_TEMPORARY_DIRECTORY}/changelog.Debian)
file(WRITE ${changelog} "${changes}")
execute_process(COMMAND fold -s -w 72 ${changelog} OUTPUT_VARIABLE changes
    COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE " *\n([^*\n])" "\n  \\1" changes "${changes}")
string(REPLACE "\n" "\n  " changes "${changes}")
string(STRIP "${changes}" changes)
string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
file(WRITE ${changelog}
    "libcourier-hub-serialisation (${version}) unstable; urgency=medium\n\n  ${changes}\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${now}\n")

foreach(component ${CPACK_COMPONENTS_ALL})
    string(TOUPPER ${component} upper)
    set(doc_dir ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc)
    set(doc_dir ${doc_dir}/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    file(COPY ${changelog} ${source_dir}/cmake/copyright DESTINATION ${doc_dir}
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    execute_process(COMMAND gzip -9n ${doc_dir}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
endforeach()
