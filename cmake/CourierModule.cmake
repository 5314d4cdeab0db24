# SPDX-License-Identifier: Apache-2.0
include(CheckLinkerFlag)

# courier_add_module(<name> <source>...)
# A module that a program loads at run time: <name>.so, linked with the library. It exports only the
# function courier_register_module, and does not link without it.
#
# Hidden visibility alone leaves the standard library's templates visible, and some of them as unique
# symbols. The loader never unloads an object that has those; hence the version script.
function(courier_add_module name)
    add_library(${name} MODULE ${ARGN})
    target_link_libraries(${name} PRIVATE courier::hub::serialisation)
    target_compile_definitions(${name} PRIVATE COURIER_MODULE_NAME="${name}") # see TypeID.h
    set_target_properties(${name} PROPERTIES
        PREFIX ""
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    if(UNIX AND NOT APPLE)
        set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}.map)
        file(CONFIGURE OUTPUT ${script}
            CONTENT "{ global: courier_register_module; local: *; };\n")
        target_link_options(${name} PRIVATE LINKER:--version-script=${script})
        set_target_properties(${name} PROPERTIES LINK_DEPENDS ${script})
        check_linker_flag(CXX LINKER:--require-defined=main COURIER_LINKER_REQUIRES_SYMBOLS)
        if(COURIER_LINKER_REQUIRES_SYMBOLS)
            target_link_options(${name} PRIVATE LINKER:--require-defined=courier_register_module)
        endif()
    endif()
endfunction()
