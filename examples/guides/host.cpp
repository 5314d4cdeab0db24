// SPDX-License-Identifier: Apache-2.0
// The program of docs/guides/module.md: loads the module that is named on the command line.

#include "Temperature.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>

#include <dlfcn.h>

#include <iostream>
#include <string>

using namespace courier::hub::serialisation;

namespace {

double decode(char const* path, ByteBufferView bytes) {
    Module const module(path); // destroyed last: everything below holds its code
    Catalogue catalogue;       // destroyed after everything that it returns
    module.registerIn(catalogue);

    constexpr auto id = courier::hub::core::getTypeID<Temperature>();
    ByteBufferIStream in(bytes);
    auto const payload = catalogue.getDeserialiserFor("text", id)(in);
    return payload.get<Temperature>(0).celsius; // a value, with no code of the module
}

} // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::cerr << "usage: host MODULE\n";
        return 2;
    }
    try {
        std::string const text = "21.5\n";
        std::cout << decode(arguments[1], ByteBufferView(text)) << " degrees\n";
    } catch (std::exception const& error) {
        std::cerr << "host: " << error.what() << '\n';
        return 1;
    }
    bool const isLoaded = ::dlopen(arguments[1], RTLD_NOW | RTLD_NOLOAD) != nullptr;
    std::cout << (isLoaded ? "still loaded\n" : "unloaded\n");
}
