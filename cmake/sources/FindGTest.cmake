# SPDX-License-Identifier: Apache-2.0
# GoogleTest, built from the sources in Debian's package, for a machine or standard library without a
# package. Used if CMAKE_MODULE_PATH has this directory.
find_path(GTEST_SOURCE_DIR src/gtest-all.cc PATHS /usr/src/googletest/googletest
    NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(GTest REQUIRED_VARS GTEST_SOURCE_DIR)

if(GTest_FOUND AND NOT TARGET GTest::gtest)
    add_library(gtest STATIC ${GTEST_SOURCE_DIR}/src/gtest-all.cc)
    target_include_directories(gtest
        SYSTEM PUBLIC ${GTEST_SOURCE_DIR}/include PRIVATE ${GTEST_SOURCE_DIR})
    target_compile_features(gtest PUBLIC cxx_std_20)
    target_link_libraries(gtest PUBLIC Threads::Threads)
    add_library(gtest_main STATIC ${GTEST_SOURCE_DIR}/src/gtest_main.cc)
    target_link_libraries(gtest_main PUBLIC gtest)
    foreach(library gtest gtest_main)
        target_compile_options(${library} PRIVATE -w) # others' code
        add_library(GTest::${library} ALIAS ${library})
    endforeach()
endif()
