# SPDX-License-Identifier: Apache-2.0
# One module is built by this compiler, one by the other: g++ and clang must agree.
courier_add_module(here modules/module.cpp)
target_compile_definitions(here PRIVATE WIRE_FORMAT="here")
set(modules $<TARGET_FILE:here>)
set(wire_formats "\"here\"")

set(other_of_GNU clang++)
set(other_of_Clang g++)
if(COURIER_TEST_OTHER_BUILDS)
    find_program(OTHER_CXX ${other_of_${CMAKE_CXX_COMPILER_ID}}
        DOC "The compiler whose modules must get on with ours")
endif()
if(COURIER_TEST_OTHER_BUILDS AND OTHER_CXX)
    set(there ${CMAKE_CURRENT_BINARY_DIR}/there.so)
    get_target_property(script here LINK_DEPENDS)
    add_custom_command(OUTPUT ${there}
        COMMAND ${OTHER_CXX} -std=c++20 -O1 -fPIC -shared -o ${there}
            -fvisibility=hidden -fvisibility-inlines-hidden -DWIRE_FORMAT=\"there\" -DCOURIER_MODULE_NAME=\"there\"
            "-I$<JOIN:$<TARGET_PROPERTY:here,INCLUDE_DIRECTORIES>,;-I>"
            -MD -MF ${there}.d -MT ${there} ${CMAKE_CURRENT_SOURCE_DIR}/modules/module.cpp
            $<TARGET_FILE:courier_hub_serialisation> $<TARGET_FILE:bedrock>
            -Wl,--version-script=${script}
        DEPENDS modules/module.cpp ${script} courier_hub_serialisation bedrock
        DEPFILE ${there}.d
        COMMENT "Building a module with ${OTHER_CXX}"
        COMMAND_EXPAND_LISTS VERBATIM)
    list(APPEND modules ${there})
    string(APPEND wire_formats ", \"there\"")
endif()

function(add_strange_module name code)
    file(CONFIGURE OUTPUT ${name}.cpp CONTENT "extern \"C\" { ${code} }\n")
    add_library(${name} MODULE ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
    set_target_properties(${name} PROPERTIES PREFIX "")
endfunction()
# Stands for a module that is linked with another version of the library.
add_strange_module(other
    "int _ZTVN7courier3hub13serialisation9CatalogueE; void courier_register_module() {}")
add_strange_module(unresolved "void missing(); void courier_register_module() { missing(); }")

add_tests(modules_tests ModulesTest.cpp ${there})
target_compile_definitions(modules_tests PRIVATE
    MODULE_DIR="${CMAKE_CURRENT_BINARY_DIR}" WIRE_FORMATS=${wire_formats}
    BEDROCK="$<TARGET_FILE:bedrock>" OTHER="$<TARGET_FILE:other>"
    UNRESOLVED="$<TARGET_FILE:unresolved>")
add_dependencies(modules_tests here other unresolved)
add_exports_test(module_exports courier_register_module ${modules})
