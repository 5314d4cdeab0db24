# SPDX-License-Identifier: Apache-2.0
# Misuse does not compile, and the message says what to do instead. Needs CXX, INCLUDES and WORK_DIR.
function(compile code)
    file(WRITE ${WORK_DIR}/refusal.cpp "
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>
using namespace courier::hub::core;
using namespace courier::hub::serialisation;
struct Price { int cents; };
void put(Price const&, std::ostream&);
Price get(std::istream&);
void tried(Catalogue& catalogue, GenericPayload& payload) { ${code} }
")
    list(TRANSFORM INCLUDES PREPEND -I)
    execute_process(COMMAND ${CXX} -std=c++20 -fsyntax-only ${INCLUDES} ${WORK_DIR}/refusal.cpp
        RESULT_VARIABLE status ERROR_VARIABLE said)
    set(status ${status} PARENT_SCOPE)
    set(said "${said}" PARENT_SCOPE)
endfunction()
function(refuse pattern code)
    compile("${code}")
    if(status EQUAL 0 OR NOT said MATCHES "${pattern}")
        message(SEND_ERROR "${code}\nis not refused by \"${pattern}\":\n${said}")
    endif()
endfunction()

compile("addFormat<Price>(catalogue, \"text\", put, get); payload.emplace<Price>();")
if(NOT status EQUAL 0)
    message(FATAL_ERROR "What is right does not compile:\n${said}")
endif()
set(add "<Price>(catalogue, \"text\",")
refuse("write is called as write.elements" "addFormat${add} [](Price const&) {}, get);")
refuse("It returns nothing" "addWriter${add} [](Price const&, std::ostream&) { return true; });")
refuse("with const references" "addWriter${add} [](Price&, std::ostream&) {});")
refuse("not by reference" "addReader${add} [](std::istream&) -> Price& { throw 1; });")
refuse("It returns the element" "addReader${add} [](std::istream&) { return 1; });")
refuse("without const" "addFormat<Price const>(catalogue, \"text\", put, get);")
refuse("is not const" "payload.add(std::make_shared<Price const>());")
refuse("Give the class a name" "auto const f = [] {}; (void)getTypeID<decltype(f)>();")
refuse("Give the class a name" "struct { int a; } u; (void)getTypeID<decltype(u)>();")
refuse("returns it by value"
    "GenericDeserialiser d([](std::istream&) -> GenericPayload& { throw 1; });")
refuse("delete" "ByteBufferIStreambuf in{ByteBuffer(3)};")
refuse("MakeItAStdSharedPtr" "payload.add(new Price{1});")
foreach(wrong "ByteBuffer b(\"text\");" "ByteBufferView v(\"text\");" "ByteBuffer().append(\"text\");")
    refuse("WrapInStdStringView" "${wrong}")
endforeach()
refuse("AdoptStdStringInstead" "adopt(\"text\");")
