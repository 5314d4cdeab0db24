# SPDX-License-Identifier: Apache-2.0
include(GenerateExportHeader)

# courier_library(<target> NAME <name> EXPORT_HEADER <path> HEADERS <file>... SOURCES <file>...
#                 SYMBOLS <pattern>...)
# A library that users link as <name>. It exports only the mangled names that match SYMBOLS: the
# attributes of the standard library's templates make them visible even where hidden is the default.
function(courier_library target)
    cmake_parse_arguments(PARSE_ARGV 1 arg ""
        "NAME;EXPORT_HEADER" "HEADERS;SOURCES;SYMBOLS")

    add_library(${target} ${arg_SOURCES})
    add_library(${arg_NAME} ALIAS ${target})
    string(TOUPPER ${target} upper)
    set(requires_cpp_20 "#if __cplusplus < 202002L && !defined(_MSC_VER)
#error \"Compile with -std=c++20 or later: this library needs C++20\"
#endif")
    generate_export_header(${target}
        EXPORT_MACRO_NAME ${upper}_EXPORT
        EXPORT_FILE_NAME ${CMAKE_CURRENT_BINARY_DIR}/include/${arg_EXPORT_HEADER}
        CUSTOM_CONTENT_FROM_VARIABLE requires_cpp_20)
    target_sources(${target} PUBLIC FILE_SET HEADERS
        BASE_DIRS include ${CMAKE_CURRENT_BINARY_DIR}/include
        FILES ${arg_HEADERS} ${CMAKE_CURRENT_BINARY_DIR}/include/${arg_EXPORT_HEADER})
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON
        EXPORT_NAME ${arg_NAME}
        VERSION ${PROJECT_VERSION}
        # Before 1.0 a minor version may change the ABI.
        SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
        VERIFY_INTERFACE_HEADER_SETS ${PROJECT_IS_TOP_LEVEL})
    if(NOT BUILD_SHARED_LIBS)
        target_compile_definitions(${target} PUBLIC ${upper}_STATIC_DEFINE)
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        # Diagnostics have paths relative to the project.
        target_compile_options(${target} PRIVATE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
        # Programs do not replace single functions of this library, so it may inline its own.
        target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    endif()

    get_target_property(type ${target} TYPE)
    if(type STREQUAL "SHARED_LIBRARY" AND UNIX AND NOT APPLE)
        # The libraries are installed in one directory, and find each other there.
        set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
        list(JOIN arg_SYMBOLS "; " symbols)
        set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
        file(CONFIGURE OUTPUT ${script} CONTENT "{ global: @symbols@; local: *; };\n" @ONLY)
        target_link_options(${target} PRIVATE LINKER:--version-script=${script})
        set_target_properties(${target} PROPERTIES LINK_DEPENDS ${script})
    endif()

    install(TARGETS ${target} EXPORT courier_hub_serialisation-targets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
            NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
endfunction()
