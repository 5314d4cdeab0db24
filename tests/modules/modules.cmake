# SPDX-License-Identifier: Apache-2.0
set(modules_dir ${CMAKE_CURRENT_BINARY_DIR}/modules)
courier_add_module(module_here modules/module.cpp)
target_compile_definitions(module_here PRIVATE WIRE_FORMAT="here")
target_include_directories(module_here PRIVATE ${PROJECT_SOURCE_DIR})
set_target_properties(module_here PROPERTIES
    OUTPUT_NAME here
    LIBRARY_OUTPUT_DIRECTORY ${modules_dir})
get_target_property(script module_here LINK_DEPENDS)
set(wire_formats "\"here\"")
set(modules $<TARGET_FILE:module_here>)
set(there ${modules_dir}/there.so)

# One module is built by this compiler, one by the other: g++ and clang must agree.
if(COURIER_TEST_OTHER_BUILDS)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        set(other clang++)
    else()
        set(other g++)
    endif()
    find_program(OTHER_CXX ${other} DOC "The compiler whose modules must get on with ours")
endif()
if(COURIER_TEST_OTHER_BUILDS AND OTHER_CXX)
    add_custom_command(OUTPUT ${there}
        COMMAND ${OTHER_CXX} -std=c++20 -O1 -fPIC -shared -o ${there}
            -fvisibility=hidden -fvisibility-inlines-hidden -DWIRE_FORMAT=\"there\" -DCOURIER_MODULE_NAME=\"there\"
            "-I$<JOIN:$<TARGET_PROPERTY:module_here,INCLUDE_DIRECTORIES>,;-I>"
            -MD -MF ${there}.d -MT ${there} ${CMAKE_CURRENT_SOURCE_DIR}/modules/module.cpp
            $<TARGET_FILE:courier_hub_serialisation> $<TARGET_FILE:bedrock>
            -Wl,--version-script=${script}
        DEPENDS modules/module.cpp ${script} courier_hub_serialisation bedrock
        DEPFILE ${there}.d
        COMMENT "Building a module with ${OTHER_CXX}"
        COMMAND_EXPAND_LISTS VERBATIM)
    add_custom_target(module_there DEPENDS ${there})
    string(APPEND wire_formats ", \"there\"")
    list(APPEND modules ${there})
else()
    add_custom_target(module_there COMMAND ${CMAKE_COMMAND} -E rm -f ${there})
endif()

# Stands for a module that is linked with another version of the library.
file(CONFIGURE OUTPUT other.cpp CONTENT "
extern \"C\" { int _ZTVN7courier3hub13serialisation9CatalogueE; void courier_register_module() {} }\n")
add_library(other MODULE ${CMAKE_CURRENT_BINARY_DIR}/other.cpp)
set_target_properties(other PROPERTIES PREFIX "")

add_executable(modules_tests ModulesTest.cpp)
target_include_directories(modules_tests PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_definitions(modules_tests PRIVATE
    MODULE_DIR="${modules_dir}" WIRE_FORMATS=${wire_formats}
    BEDROCK="$<TARGET_FILE:bedrock>" OTHER="$<TARGET_FILE:other>")
target_link_libraries(modules_tests
    PRIVATE courier::hub::serialisation GTest::gtest GTest::gtest_main)
add_dependencies(modules_tests module_here module_there other)
gtest_discover_tests(modules_tests)

add_test(NAME module_exports COMMAND ${CMAKE_COMMAND} -D NM=${CMAKE_NM}
    "-DLIBRARIES=${modules}"
    -D NAMES=courier_register_module -P ${CMAKE_CURRENT_SOURCE_DIR}/exports.cmake)
