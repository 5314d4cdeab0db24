# SPDX-License-Identifier: Apache-2.0
# The program in the README is the one that is compiled and run, and the version that it asks for is
# ours. Needs SOURCE_DIR and VERSION.
file(READ ${SOURCE_DIR}/README.md readme)
file(READ ${SOURCE_DIR}/examples/quickstart/main.cpp program)
string(REGEX REPLACE "^// SPDX[^\n]*\n" "" program "${program}")
string(FIND "${readme}" "```cpp\n${program}```" position)
if(position EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/quickstart/main.cpp as it is")
endif()
string(FIND "${readme}" "find_package(courier_hub_serialisation ${VERSION} REQUIRED)" position)
if(position EQUAL -1)
    message(FATAL_ERROR "README.md does not ask for version ${VERSION}")
endif()
