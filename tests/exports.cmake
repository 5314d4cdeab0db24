# SPDX-License-Identifier: Apache-2.0
# Only names of the library and of bedrock leave the shared objects, and none of them is unique in
# the process: a unique symbol would keep its library from ever being unloaded. Needs NM, LIBRARIES.
foreach(library ${LIBRARIES})
    execute_process(COMMAND ${NM} -D -C --defined-only ${library} OUTPUT_VARIABLE names
        COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE "\n$" "" names "${names}")
    string(REPLACE ";" "," names "${names}")
    string(REPLACE "\n" ";" names "${names}")
    set(ours "(courier::hub::serialisation::|bedrock::|bedrock_diag_)")
    foreach(name ${names})
        if(NOT name MATCHES "^[0-9a-f]+ [^u] ((typeinfo|typeinfo name|vtable) for )?${ours}")
            message(FATAL_ERROR "${library} exports ${name}")
        endif()
    endforeach()
    list(LENGTH names count)
    if(count LESS 3)
        message(FATAL_ERROR "${library} exports only ${count} names")
    endif()
endforeach()
