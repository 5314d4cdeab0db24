// SPDX-License-Identifier: Apache-2.0
// The program of docs/guides/module.md: loads the module that is named on the command line.

#include "Temperature.h"

#include <courier/hub/serialisation/Catalogue.h>
#include <courier/hub/serialisation/IOStreams.h>

#include <dlfcn.h>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

using namespace courier::hub::serialisation;

namespace {

struct Unload {
    void operator()(void* module) const noexcept { ::dlclose(module); }
};
using Module = std::unique_ptr<void, Unload>;

Module load(char const* path) {
    Module module(::dlopen(path, RTLD_NOW | RTLD_LOCAL));
    if (!module) {
        throw std::runtime_error(::dlerror());
    }
    return module;
}

void registerModule(Module const& module, Catalogue& catalogue) {
    void* const entry = ::dlsym(module.get(), "courier_register_module");
    if (entry == nullptr) {
        throw std::runtime_error(::dlerror());
    }
    reinterpret_cast<void (*)(Catalogue&)>(entry)(catalogue);
}

double decode(char const* path, ByteBufferView bytes) {
    Module const module = load(path); // destroyed last: everything below holds its code
    Catalogue catalogue;              // destroyed after everything that it returns
    registerModule(module, catalogue);

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
        std::string const text = "21.5";
        std::cout << decode(arguments[1], ByteBufferView(text)) << " degrees\n";
    } catch (std::exception const& error) {
        std::cerr << "host: " << error.what() << '\n';
        return 1;
    }
    bool const isLoaded = ::dlopen(arguments[1], RTLD_NOW | RTLD_NOLOAD) != nullptr;
    std::cout << (isLoaded ? "still loaded\n" : "unloaded\n");
}
