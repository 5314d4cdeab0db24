// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_LOADED_MODULES_H
#define COURIER_EXAMPLES_PROGRAM_LOADED_MODULES_H

#include "examples/modules/Module.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <dlfcn.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace courier::examples {

/// The modules that a program has loaded. Its destructor unloads them: declare it before the
/// catalogue and before everything that the catalogue returns.
class LoadedModules {
public:
    /// Loads every module of the directory and lets it register with the catalogue; its readers
    /// take no more memory for one element than the limit. Throws std::runtime_error if there is no
    /// module, or one cannot be loaded.
    void load(std::filesystem::path const& directory, hub::serialisation::Catalogue& catalogue,
              std::uint64_t readLimit) {
        // In order of name, as "*" finds the format that was registered first.
        std::set<std::filesystem::path> files;
        for (auto const& entry : std::filesystem::directory_iterator(directory)) {
            if (entry.path().extension() == ".so") {
                files.insert(entry.path());
            }
        }
        if (files.empty()) {
            throw std::runtime_error("no modules in " + directory.string());
        }
        for (auto const& file : files) {
            // Local, so that no module finds the symbols of another.
            loaded_.emplace_back(::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
            auto& module = loaded_.back();
            void* const entry = module ? ::dlsym(module.get(), registerModuleName) : nullptr;
            if (entry == nullptr) {
                throw std::runtime_error(std::string("cannot load a module: ") + ::dlerror());
            }
            reinterpret_cast<RegisterModule*>(entry)(catalogue, readLimit);
        }
    }

private:
    struct Unload {
        void operator()(void* module) const noexcept { ::dlclose(module); }
    };
    std::vector<std::unique_ptr<void, Unload>> loaded_;
};

} // namespace courier::examples

#endif
