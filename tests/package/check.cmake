# SPDX-License-Identifier: Apache-2.0
# Uses the library as its users do: installed, by find_package() and by pkg-config, and as a
# subdirectory. Needs SOURCE_DIR, WORK_DIR, CXX, GENERATOR, VERSION, and either BUILD_DIR, or the
# PREFIX of an installation.
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

function(build_outside name)
    run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package -B ${WORK_DIR}/${name} -G ${GENERATOR}
        -D CMAKE_CXX_COMPILER=${CXX} -D COURIER_SOURCE_DIR=${SOURCE_DIR}
        -D COURIER_VERSION=${VERSION} ${ARGN})
    run(${CMAKE_COMMAND} --build ${WORK_DIR}/${name})
    expect("1999 cents\n" ${WORK_DIR}/${name}/main)
    # Unloaded when it is closed. A static library would be in the module a second time.
    if(NOT name STREQUAL "static")
        expect("21.5 degrees\nunloaded\n" ${WORK_DIR}/${name}/host ${WORK_DIR}/${name}/module.so)
    endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
if(NOT PREFIX)
    set(PREFIX ${WORK_DIR}/prefix)
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
    build_outside(static -D AS_SUBDIRECTORY=ON -D BUILD_SHARED_LIBS=OFF)
endif()
build_outside(find_package -D CMAKE_PREFIX_PATH=${PREFIX})

file(GLOB_RECURSE pc ${PREFIX}/*/courier_hub_serialisation.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags --libs courier_hub_serialisation)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${CXX} -std=c++20 ${SOURCE_DIR}/examples/quickstart/main.cpp -o ${WORK_DIR}/pkg-config ${flags}
    -Wl,-rpath,${lib_dir})
expect("1999 cents\n" ${WORK_DIR}/pkg-config)

# Every link of the installed pages to a page or program resolves in the installed tree.
file(GLOB_RECURSE guides ${PREFIX}/share/doc/*/docs/guides/module.md)
if(NOT guides)
    message(FATAL_ERROR "the guides are not installed")
endif()
