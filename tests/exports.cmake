# SPDX-License-Identifier: Apache-2.0
# Only these names leave the shared objects, and none of them is unique in the process: a unique
# symbol would keep its library from ever being unloaded. Needs NM, LIBRARIES and NAMES, a pattern.
foreach(library ${LIBRARIES})
    execute_process(COMMAND ${NM} -D -C --defined-only ${library} OUTPUT_VARIABLE names
        COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE "\n$" "" names "${names}")
    string(REPLACE ";" "," names "${names}")
    string(REPLACE "\n" ";" names "${names}")
    foreach(name ${names})
        if(NOT name MATCHES "^[0-9a-f]+ [^u] ((typeinfo|typeinfo name|vtable) for )?${NAMES}")
            message(FATAL_ERROR "${library} exports ${name}")
        endif()
    endforeach()
    if(NOT names)
        message(FATAL_ERROR "${library} exports nothing")
    endif()
endforeach()
