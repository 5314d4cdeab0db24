// SPDX-License-Identifier: Apache-2.0
// Modules that are loaded into one process, one of them built by the other compiler.
#include "Support.h"

#include <courier/hub/serialisation/Module.h>

#include <map>

namespace {

using namespace tests;
using Rows = std::map<std::string, std::uint64_t>;

std::string outcome(Catalogue const& catalogue, std::string const& format, Rows const& rows) {
    GenericPayload payload;
    payload.add(std::make_shared<Rows>(rows));
    try {
        return written(catalogue.getSerialiserFor(format, std::move(payload)));
    } catch (std::range_error const& error) {
        return error.what();
    }
}

TEST(Modules, OfTwoCompilersServeEachOtherAndUnload) {
    std::vector<char const*> const formats = {WIRE_FORMATS};
    std::string met; // what a module's client says about each format
    for (auto const* const format : formats) {
        met += format + std::string(": equal range_error out_of_range\n");
    }
    std::filesystem::current_path(MODULE_DIR);
    for (int round = 0; round < 2; ++round) {
        {
            std::vector<Module> modules;
            for (std::string const format : formats) {
                modules.emplace_back(format + ".so"); // not one that the loader searches for
            }
            Catalogue catalogues[2];
            for (auto& catalogue : catalogues) {
                for (Module const& module : modules) {
                    module.registerIn(catalogue);
                }
                EXPECT_TRUE(isMapped("here[.]so"));
                for (std::string const format : formats) {
                    EXPECT_EQ(outcome(catalogue, format, {{"a", 1}}), "a 1\n");
                    EXPECT_EQ(outcome(catalogue, format, {{"", 1}}), format + " wants a name");
                    EXPECT_EQ(outcome(catalogue, "client of " + format, {{"a", 1}}), met);
                }
            }
        }
        EXPECT_FALSE(isMapped("here[.]so"));
    }
    if (formats.size() < 2) {
        GTEST_SKIP() << "with one compiler only: g++ and clang++ are wanted, to see them meet";
    }
}

TEST(Modules, RefusesWithTheCauseWhatIsNoModuleOfThisLibrary) {
    auto const text = testing::TempDir() + "module.txt";
    std::ofstream(text) << "text";
    for (auto const& each : std::map<std::string, std::string>{
             {"missing.so", "missing.so: there is no such file"},
             {text, "module.txt: .*Check that it is a shared object"},
             {BEDROCK, "bedrock.*: it does not export courier_register_module"},
             {OTHER, "other.so: it uses .*other.so, and this program uses .*libcourier_hub"}}) {
        auto const message =
            messageOf<std::runtime_error>([&] { Module const module(each.first); });
        EXPECT_TRUE(std::regex_search(message, std::regex(each.second))) << message;
    }
    EXPECT_FALSE(isMapped("other[.]so"));
}

} // namespace
