# SPDX-License-Identifier: Apache-2.0
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(target x86_64-w64-mingw32)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64) # `wine` needs its 32-bit package
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_CXX_COMPILER ${target}-g++-posix) # the other one has no std::thread
