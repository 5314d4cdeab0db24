// SPDX-License-Identifier: Apache-2.0
// Modules that meet at run time, one of them built by the other compiler.
#include "../examples/common/Modules.h"
#include "modules/Table.h"

#include <courier/hub/core/GenericPayload.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

using courier::hub::core::GenericPayload;
using courier::hub::serialisation::Catalogue;
using tests::Element;

std::string outcome(Catalogue const& catalogue, std::string const& format, Element element) {
    GenericPayload payload;
    payload.add(std::make_shared<Element>(std::move(element)));
    std::ostringstream out;
    try {
        catalogue.getSerialiserFor(format, std::move(payload))(out);
    } catch (std::range_error const& error) {
        return error.what();
    }
    return out.str();
}

TEST(ModulesTest, OfTwoCompilersServeEachOtherAndUnload) {
    std::vector<char const*> const formats = {WIRE_FORMATS};
    auto const areMapped = [] {
        std::ostringstream maps;
        maps << std::ifstream("/proc/self/maps").rdbuf();
        return maps.str().find("here.so") != std::string::npos;
    };
    std::string met; // what a module's client says about each format
    for (auto const* const format : formats) {
        met += format + std::string(": equal range_error out_of_range\n");
    }
    for (int round = 0; round < 2; ++round) {
        {
            courier::examples::Modules modules;
            Catalogue catalogues[2];
            for (auto& catalogue : catalogues) {
                modules.load(MODULE_DIR, catalogue);
                EXPECT_TRUE(areMapped());
                for (std::string const format : formats) {
                    EXPECT_EQ(outcome(catalogue, format, {{{"a", 1}}}), "a 1\n");
                    EXPECT_EQ(outcome(catalogue, format, {{{"", 1}}}), format + " wants a name");
                    EXPECT_EQ(outcome(catalogue, "client of " + format, {{{"a", 1}}}), met);
                }
            }
        }
        EXPECT_FALSE(areMapped());
    }
    if (formats.size() < 2) {
        GTEST_SKIP() << "with one compiler only: g++ and clang++ are wanted, to see them meet";
    }
}

} // namespace
