// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Module.h>

#include <stdexcept>
#include <string>
#include <system_error>
#include <typeinfo>

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace courier::hub::serialisation {

namespace {

#ifdef _WIN32
void* load(std::filesystem::path const& file) { return ::LoadLibraryW(file.c_str()); }

void* find(void* library, char const* name) {
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

void unload(void* library) noexcept { ::FreeLibrary(static_cast<HMODULE>(library)); }

std::string loadersError() {
    return std::system_category().message(static_cast<int>(::GetLastError()));
}

std::string otherLibrary(void* /*module*/) { return {}; }
#else
void* load(std::filesystem::path const& file) { return ::dlopen(file.c_str(), RTLD_NOW); }

void* find(void* library, char const* name) { return ::dlsym(library, name); }

void unload(void* library) noexcept { ::dlclose(library); }

std::string loadersError() { return ::dlerror(); }

// If a module is linked with another copy of this library, the file of that one. Both may be in the
// process, for example as two versions; a catalogue of one is nothing to the code of the other.
std::string otherLibrary(void* module) {
    static char const ours = '\0';
    std::string const table = std::string("_ZTV") + typeid(Catalogue).name();
    void* const theirs = find(module, table.c_str()); // its own or that of a library it needs
    Dl_info here{};
    Dl_info there{};
    if (theirs == nullptr || ::dladdr(&ours, &here) == 0 || ::dladdr(theirs, &there) == 0 ||
        here.dli_fbase == there.dli_fbase) {
        return {};
    }
    return there.dli_fname + std::string(", and this program uses ") + here.dli_fname;
}
#endif

[[noreturn]] void fail(std::filesystem::path const& file, std::string const& why) {
    throw std::runtime_error("Cannot load the module " + file.string() + ": " + why);
}

} // namespace

void Module::Unload::operator()(void* library) const noexcept { unload(library); }

Module::Module(std::filesystem::path const& file) {
    auto const path = std::filesystem::absolute(file); // the loader searches for a bare name
    if (!std::filesystem::exists(path)) {
        fail(path, "there is no such file. A relative path starts at the current directory");
    }
    library_.reset(load(path));
    if (library_ == nullptr) {
        fail(path, loadersError() + ". Check that it is a shared object for this machine, that the "
                                    "libraries it needs are installed, and that it was built for "
                                    "the version of courier_hub_serialisation in this program");
    }
    entry_ = reinterpret_cast<decltype(entry_)>(find(library_.get(), "courier_register_module"));
    if (entry_ == nullptr) {
        fail(path, "it does not export courier_register_module(). Include "
                   "<courier/hub/serialisation/Module.h> where that is defined, and build it by "
                   "courier_add_module()");
    }
    if (std::string const other = otherLibrary(library_.get()); !other.empty()) {
        fail(path, "it uses " + other + ". Build both with the same version");
    }
}

Module::Module(Module&&) noexcept = default;
Module& Module::operator=(Module&&) noexcept = default;
Module::~Module() = default;

void Module::registerIn(Catalogue& catalogue) const { entry_(catalogue); }

} // namespace courier::hub::serialisation
