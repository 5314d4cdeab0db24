# SPDX-License-Identifier: Apache-2.0
# Misuse does not compile, and the message says what to do instead. Needs CXX, INCLUDES and WORK_DIR.
set(start "
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>
using namespace courier::hub::core;
using namespace courier::hub::serialisation;
struct Price { int cents; };
void put(Price const&, std::ostream&);
Price get(std::istream&);
")
if(CXX MATCHES "clang")
    set(all_errors -ferror-limit=0)
endif()
function(compile code)
    file(WRITE ${WORK_DIR}/refusal.cpp "${start}${code}")
    list(TRANSFORM INCLUDES PREPEND -I)
    execute_process(COMMAND ${CXX} -std=c++20 -fsyntax-only ${all_errors} ${INCLUDES}
        ${WORK_DIR}/refusal.cpp RESULT_VARIABLE status ERROR_VARIABLE said)
    set(status ${status} PARENT_SCOPE)
    set(said "${said}" PARENT_SCOPE)
endfunction()
function(refuse pattern code)
    list(LENGTH patterns n)
    list(APPEND patterns "${pattern}")
    set(patterns "${patterns}" PARENT_SCOPE)
    set(tried "${tried}
void tried${n}(Catalogue& catalogue, GenericPayload& payload) { ${code} }" PARENT_SCOPE)
endfunction()

set(add "<Price>(catalogue, \"text\",")
refuse("write is called as write.elements" "addFormat${add} [](Price const&) {}, get);")
refuse("write returns nothing" "addWriter${add} [](Price const&, std::ostream&) { return true; });")
refuse("const references" "addWriter${add} [](Price&, std::ostream&) {});")
foreach(move_only "addWriter${add} [u = std::unique_ptr<int>()](Price const&, std::ostream&) {});"
        "addReader${add} [u = std::unique_ptr<int>()](std::istream&) { return Price(); });")
    refuse("must be copyable" "${move_only}")
endforeach()
refuse("lambda not mutable" "addWriter${add} [n = 0](Price const&, std::ostream&) mutable { ++n; });")
refuse("lambda not mutable" "addReader${add} [p = Price()](std::istream&) mutable { return p; });")
refuse("takes a std::stop_token" "addWriter${add} [](Price const&, std::ostream&, std::stop_token) {});")
refuse("read is called as" "addReader${add} [] { return Price(); });")
refuse("not by reference" "addReader${add} [](std::istream&) -> Price& { throw 1; });")
refuse("returns the element" "addReader${add} [](std::istream&) { return 1; });")
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
refuse("conflicting" "} extern \"C\" void courier_register_module(Catalogue const&); void f() {")
refuse("AdoptStdStringInstead" "adopt(\"text\");")

list(TRANSFORM INCLUDES PREPEND -I OUTPUT_VARIABLE options)
foreach(header IN ITEMS Buffers FanOut)
    file(WRITE ${WORK_DIR}/old.cpp "#include <courier/hub/serialisation/${header}.h>\n")
    execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only ${options} ${WORK_DIR}/old.cpp
        ERROR_VARIABLE said)
    string(REGEX MATCH "error: [^\n]*" first "${said}")
    if(NOT first MATCHES "Compile with -std")
        message(SEND_ERROR "C++17 is not refused first:\n${said}")
    endif()
endforeach()

compile("void right(Catalogue& catalogue, GenericPayload& payload) {
    addFormat${add} put, get);
    payload.emplace<Price>();
}")
if(NOT status EQUAL 0)
    message(FATAL_ERROR "What is right does not compile:\n${said}")
endif()
compile("${tried}")
set(line 11)
foreach(pattern IN LISTS patterns)
    if(NOT said MATCHES "refusal.cpp:${line}:" OR NOT said MATCHES "${pattern}")
        message(SEND_ERROR "Line ${line} is not refused by \"${pattern}\":\n${said}")
    endif()
    math(EXPR line "${line} + 1")
endforeach()
