// SPDX-License-Identifier: Apache-2.0
// Modules that are loaded into one process, one of them built by the other compiler.
#include "Support.h"
#include "examples/program/LoadedModules.h"

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

TEST(ModulesTest, OfTwoCompilersServeEachOtherAndUnload) {
    std::vector<char const*> const formats = {WIRE_FORMATS};
    std::string met; // what a module's client says about each format
    for (auto const* const format : formats) {
        met += format + std::string(": equal range_error out_of_range\n");
    }
    for (int round = 0; round < 2; ++round) {
        {
            courier::examples::LoadedModules modules;
            Catalogue catalogues[2];
            for (auto& catalogue : catalogues) {
                modules.load(MODULE_DIR, catalogue, 0);
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

} // namespace
