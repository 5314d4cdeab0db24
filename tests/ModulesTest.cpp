// SPDX-License-Identifier: Apache-2.0
// Modules that are loaded into one process, one of them built by the other compiler.
#include "Support.h"

#include <courier/hub/serialisation/Module.h>

#include <link.h>

#include <fstream>
#include <map>
#include <regex>

namespace {

using namespace tests;
using Rows = std::map<std::string, std::uint64_t>;

// By its own path: the loader must not have searched for it.
bool isLoaded(std::string const& file) {
    auto const isThat = [](dl_phdr_info* loaded, std::size_t, void* path) {
        return *static_cast<std::filesystem::path*>(path) == loaded->dlpi_name ? 1 : 0;
    };
    auto path = std::filesystem::absolute(file);
    return dl_iterate_phdr(isThat, &path) != 0;
}

TEST(Modules, OfTwoCompilersServeEachOtherAndUnload) {
    Formats const formats = {WIRE_FORMATS};
    Rows all; // what a client in any module gets
    for (auto const& format : formats) {
        all[format] = 42;
    }
    std::filesystem::current_path(MODULE_DIR);
    for (int round = 0; round < 2; ++round) {
        {
            std::vector<Module> modules;
            for (auto const& format : formats) {
                modules.emplace_back(format + ".so");
            }
            Catalogue catalogue;
            for (Module const& module : modules) {
                module.registerIn(catalogue);
            }
            EXPECT_TRUE(isLoaded("here.so"));
            for (auto const& format : formats) {
                std::istringstream in;
                auto const client =
                    catalogue.getDeserialiserFor("all, by " + format, getTypeID<Rows>());
                EXPECT_EQ(client(in).get<Rows>(0), all);
            }
        }
        EXPECT_FALSE(isLoaded("here.so"));
    }
    if (formats.size() < 2) {
        GTEST_SKIP() << "with one compiler only: g++ and clang++ are wanted, to see them meet";
    }
}

TEST(Modules, RefusesWithTheCauseWhatIsNoModuleOfThisLibrary) {
    auto const text = testing::TempDir() + "module.txt";
    std::ofstream(text) << "text";
    for (auto const& [file, cause] : std::map<std::string, std::string>{
             {"missing.so", "module /.*missing.so: there is no such file"},
             {text, "module.txt: .*Check that it is a shared object"},
             {UNRESOLVED, "undefined symbol: missing"},
             {BEDROCK, "bedrock.*: it does not export courier_register_module"},
             {OTHER, "other.so: it uses .*other.so, and this program uses .*libcourier_hub"}}) {
        auto const message = messageOf<std::runtime_error>([f = file] { Module const module(f); });
        EXPECT_TRUE(std::regex_search(message, std::regex(cause))) << message;
    }
    EXPECT_FALSE(isLoaded(OTHER));
}

} // namespace
