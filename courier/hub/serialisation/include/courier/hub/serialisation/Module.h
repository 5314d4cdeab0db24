// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_MODULE_H
#define COURIER_HUB_SERIALISATION_MODULE_H

#include <courier/hub/serialisation/Catalogue.h>
#include <courier/hub/serialisation/Export.h>

#include <filesystem>
#include <memory>

// On the entry of a module.
#ifdef _WIN32
#define COURIER_HUB_SERIALISATION_ENTRY __declspec(dllexport)
#else
#define COURIER_HUB_SERIALISATION_ENTRY [[gnu::visibility("default")]]
#endif

/// The one function that a module exports. The module defines it, to register its formats:
///
///     void courier_register_module(Catalogue& catalogue) {
///         addFormat<Price>(catalogue, "text", writePrice, readPrice);
///     }
///
/// Include this header there: the declaration supplies linkage and visibility. courier_add_module()
/// fails to link a module that does not define it, because its name or its parameter differs.
///
/// It has no other parameter, whatever a program wants to tell its modules: they can look that up
/// in the catalogue. A module throws only exceptions of the standard library, so that whoever
/// catches one may unload the module first.
extern "C" COURIER_HUB_SERIALISATION_ENTRY void
courier_register_module(courier::hub::serialisation::Catalogue& catalogue);

namespace courier::hub::serialisation {

/// A module that a program has loaded.
///
///     Module const prices("modules/prices.so"); // destroyed last: everything below holds its code
///     Catalogue catalogue;
///     prices.registerIn(catalogue);
///
/// The destructor unloads the module. Its code is in the catalogue, in everything that the
/// catalogue returned, in the elements that were read, and in exceptions of its own classes:
/// destroy them first. To be unloaded it must have been built by courier_add_module().
///
/// Move-only. A moved-from Module may only be assigned to or destroyed. Thread-compatible.
class COURIER_HUB_SERIALISATION_EXPORT Module {
public:
    /// Loads a module; a relative path starts at the current directory. No other module sees its
    /// symbols. A module that is loaded already is counted once more.
    ///
    /// Throws std::runtime_error if there is no such file, if it or a library that it needs cannot
    /// be loaded, if it does not export courier_register_module(), or if it uses another copy of
    /// this library than the program does. The text names the file, the cause and the remedy. Also
    /// throws std::bad_alloc. The module is then not loaded.
    explicit Module(std::filesystem::path const& file);

    /// Takes the module over. An assignment unloads what this object held first.
    Module(Module&& other) noexcept;
    Module& operator=(Module&& other) noexcept;
    ~Module();

    /// Calls the module's courier_register_module(). Throws what that throws. A second call with
    /// the same catalogue registers duplicates, which end the process: see Catalogue::add().
    void registerIn(Catalogue& catalogue) const;

private:
    struct Unload {
        void operator()(void* library) const noexcept;
    };
    std::unique_ptr<void, Unload> library_;
    decltype(&courier_register_module) entry_ = nullptr;
};

} // namespace courier::hub::serialisation

#endif
