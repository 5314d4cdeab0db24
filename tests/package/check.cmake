# SPDX-License-Identifier: Apache-2.0
# Uses the library as its users do: as a subdirectory, and installed, by find_package() and pkg-config.
# The installed examples are built without the project. Needs SOURCE_DIR, WORK_DIR, CXX, GENERATOR, and
# either BUILD_DIR, or the PREFIX of an installation.
function(run)
    execute_process(COMMAND ${ARGV} OUTPUT_VARIABLE output ERROR_VARIABLE output
        RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        list(JOIN ARGV " " command)
        message(FATAL_ERROR "${command}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

function(expect output_wanted)
    run(${ARGN})
    if(NOT output STREQUAL output_wanted)
        message(FATAL_ERROR "${ARGN} prints ${output}")
    endif()
endfunction()

function(build source name)
    run(${CMAKE_COMMAND} -S ${source} -B ${WORK_DIR}/${name} -G ${GENERATOR}
        -D CMAKE_CXX_COMPILER=${CXX} ${ARGN})
    run(${CMAKE_COMMAND} --build ${WORK_DIR}/${name})
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
if(NOT PREFIX)
    set(PREFIX ${WORK_DIR}/prefix)
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
    build(${SOURCE_DIR}/tests/package static
        -D COURIER_SOURCE_DIR=${SOURCE_DIR} -D BUILD_SHARED_LIBS=OFF)
    expect("1999 cents\n" ${WORK_DIR}/static/quickstart)
endif()

file(GLOB examples ${PREFIX}/share/doc/*/examples)
get_filename_component(doc_dir ${examples} DIRECTORY)
build(${examples} examples -D CMAKE_PREFIX_PATH=${PREFIX})
set(built ${WORK_DIR}/examples)
expect("1999 cents\n" ${built}/quickstart)
# Unloaded when it is closed.
expect("21.5 degrees\nunloaded\n" ${built}/guides/guide_host ${built}/guides/guide_module.so)
run(${built}/guides/guide_testing)
run(${built}/roundtrip/roundtrip) # with the files of the installed tree

file(GLOB_RECURSE pc ${PREFIX}/*/courier_hub_serialisation.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags --libs courier_hub_serialisation)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${CXX} -std=c++20 ${examples}/quickstart/main.cpp -o ${WORK_DIR}/pkg-config ${flags}
    -Wl,-rpath,${lib_dir})
expect("1999 cents\n" ${WORK_DIR}/pkg-config)

# Every link of an installed page resolves there, and every directory has something in it.
file(GLOB_RECURSE pages ${doc_dir}/*.md)
foreach(page IN LISTS pages)
    get_filename_component(directory ${page} DIRECTORY)
    file(READ ${page} text)
    string(REGEX REPLACE "\n```[^`]*\n```" "" text "${text}")
    string(REPLACE "](" "=" text "${text}")
    string(REGEX MATCHALL "=[^][);# \n]+\\)" links "${text}")
    foreach(link IN LISTS links)
        string(REGEX REPLACE "[=)]" "" link ${link})
        if(NOT link MATCHES "^https?:" AND NOT EXISTS ${directory}/${link})
            message(SEND_ERROR "${page}: ${link} is not installed")
        endif()
    endforeach()
endforeach()
file(GLOB_RECURSE entries LIST_DIRECTORIES true ${PREFIX}/*)
foreach(entry IN LISTS entries)
    file(GLOB inside ${entry}/*)
    if(IS_DIRECTORY ${entry} AND NOT inside)
        message(SEND_ERROR "${entry} is empty")
    endif()
endforeach()
