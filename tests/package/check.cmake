# SPDX-License-Identifier: Apache-2.0
# Uses the library as its users do: installed, by find_package() and by pkg-config; as a
# subdirectory; and packed for Debian. Needs SOURCE_DIR, BUILD_DIR, WORK_DIR, CXX and GENERATOR.
function(run)
    execute_process(COMMAND ${ARGV} OUTPUT_VARIABLE output ERROR_VARIABLE output
        RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        list(JOIN ARGV " " command)
        message(FATAL_ERROR "${command}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

function(run_quickstart name program)
    run(${program})
    if(NOT output STREQUAL "1999 cents\n")
        message(FATAL_ERROR "${name} prints ${output}")
    endif()
    message(STATUS "${name}: ${output}")
endfunction()

function(build_outside name)
    run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package -B ${WORK_DIR}/${name} -G ${GENERATOR}
        -D CMAKE_CXX_COMPILER=${CXX} -D COURIER_SOURCE_DIR=${SOURCE_DIR} ${ARGN})
    run(${CMAKE_COMMAND} --build ${WORK_DIR}/${name})
    run_quickstart(${name} ${WORK_DIR}/${name}/quickstart)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
build_outside(find_package -D CMAKE_PREFIX_PATH=${prefix})
build_outside(add_subdirectory -D AS_SUBDIRECTORY=ON)
build_outside(static -D AS_SUBDIRECTORY=ON -D BUILD_SHARED_LIBS=OFF)

file(GLOB_RECURSE pc ${prefix}/*/courier_hub_serialisation.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags --libs courier_hub_serialisation)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${CXX} -std=c++20 ${SOURCE_DIR}/examples/quickstart/main.cpp -o ${WORK_DIR}/pkg-config ${flags}
    -Wl,-rpath,${lib_dir})
run_quickstart(pkg-config ${WORK_DIR}/pkg-config)

find_program(dpkg_deb dpkg-deb)
if(dpkg_deb)
    run(${CMAKE_CPACK_COMMAND} -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR}/deb)
    file(GLOB packages ${WORK_DIR}/deb/*.deb)
    set(content "")
    foreach(package ${packages})
        run(${dpkg_deb} --contents ${package})
        string(APPEND content "${output}")
    endforeach()
    foreach(expected libcourier_hub_serialisation.so.0.1 libbedrock.so.0.1 serialisation/Buffers.h
            courier_hub_serialisation-config.cmake courier_hub_serialisation.pc)
        if(NOT content MATCHES "${expected}")
            message(FATAL_ERROR "No Debian package has ${expected}:\n${content}")
        endif()
    endforeach()
    list(LENGTH packages count)
    message(STATUS "cpack: ${count} Debian packages")
endif()
