# SPDX-License-Identifier: Apache-2.0
# What the toolchains for Debian's cross compilers share. Needs `target`, the compiler's prefix.
set(CMAKE_CXX_COMPILER ${target}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${target})

# Boost's headers serve every machine, but /usr/include has other files for this one, so they get a
# root of their own.
set(headers_root ${CMAKE_BINARY_DIR}/headers)
file(MAKE_DIRECTORY ${headers_root}/usr/include)
file(CREATE_LINK /usr/include/boost ${headers_root}/usr/include/boost SYMBOLIC)
list(APPEND CMAKE_FIND_ROOT_PATH ${headers_root})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
