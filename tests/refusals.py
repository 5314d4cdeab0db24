# SPDX-License-Identifier: Apache-2.0
"""Misuse does not compile, and the message says what to do instead: refusals.py COMPILER OPTION..."""

import re
import subprocess
import sys

START = """
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>
using namespace courier::hub::core;
using namespace courier::hub::serialisation;
struct Price { int cents; };
void put(Price const&, std::ostream&);
Price get(std::istream&);
"""
WRONG = """
addFormat% [](Price const&) {}, get);                                 // write is called as write(elements
addWriter% [](Price const&, std::ostream&) { return true; });         // write returns nothing
addWriter% [](Price&, std::ostream&) {});                             // const references
addWriter% [u = std::unique_ptr<int>()](Price const&, std::ostream&) {});          // write must be copyable
addReader% [u = std::unique_ptr<int>()](std::istream&) { return Price(); });       // read must be copyable
addWriter% [n = 0](Price const&, std::ostream&) mutable { ++n; });    // write is called as a const object
addReader% [p = Price()](std::istream&) mutable { return p; });       // read is called as a const object
addWriter% [](Price const&, std::ostream&, std::stop_token) {});      // takes a std::stop_token
addReader% [] { return Price(); });                                   // read is called as
addReader% [](std::istream&) -> Price& { throw 1; });                 // not by reference
addReader% [](std::istream&) { return 1; });                          // returns the element
addFormat<Price const>(catalogue, "text", put, get);                  // without const
payload.add(std::make_shared<Price const>());                         // is not const
payload.add(new Price{1});                                            // MakeItAStdSharedPtr
auto const f = [] {}; (void)getTypeID<decltype(f)>();                 // Give the class a name
struct { int a; } u; (void)getTypeID<decltype(u)>();                  // Give the class a name
GenericDeserialiser d([](std::istream&) -> GenericPayload& { throw 1; });          // returns it by value
ByteBufferIStreambuf in{ByteBuffer(3)};                               // delete
ByteBuffer b("text");                                                 // WrapInStdStringView
ByteBufferView v("text");                                             // WrapInStdStringView
ByteBuffer().append("text");                                          // WrapInStdStringView
adopt("text");                                                        // AdoptStdStringInstead
} extern "C" void courier_register_module(Catalogue const&); void f() {            // conflicting
"""


def errors(code, standard="c++20"):
    command = [*sys.argv[1:], f"-std={standard}", "-fsyntax-only", "-x", "c++", "-"]
    command += ["-ferror-limit=0"] if "clang" in sys.argv[1] else []
    return subprocess.run(command, input=code, capture_output=True, text=True).stderr


cases = re.findall("(.+?) +// (.+)", WRONG.replace("% ", '<Price>(catalogue, "text", '))
code = START
for number, (wrong, _) in enumerate(cases, 1):
    code += f'#line {number} "case"\n'
    code += f"void f{number}(Catalogue& catalogue, GenericPayload& payload) {{ {wrong} }}\n"
said = errors(code)
failed = []
for number, (wrong, message) in enumerate(cases, 1):
    if f"case:{number}:" not in said or message not in said:
        failed.append(f"{wrong} is not refused by: {message}\n{said}")
for header in ("Buffers", "FanOut"):
    said = errors(f"#include <courier/hub/serialisation/{header}.h>\n", "c++17")
    if "Compile with -std" not in "".join(re.findall("error: .*", said)[:1]):
        failed.append(f"C++17 is not refused first:\n{said}")
print("\n".join(failed) or f"{len(cases)} refusals")
sys.exit(bool(failed))
