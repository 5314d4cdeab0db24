// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/testing.md: tests of module.cpp, which is linked in, not loaded.

#include "Temperature.h"

#include <courier/hub/serialisation/Catalogue.h>
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>

#include <gtest/gtest.h>

#include <string>
#include <system_error>
#include <utility>

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;
using courier::hub::core::getTypeID;

namespace {

struct TemperatureModule : testing::TestWithParam<std::string> {
    TemperatureModule() { courier_register_module(catalogue); }

    GenericSerialiser writer(double celsius) const {
        GenericPayload payload;
        payload.emplace<Temperature>(Temperature{celsius});
        return catalogue.getSerialiserFor(GetParam(), std::move(payload));
    }
    ByteBuffer written(double celsius) const {
        ByteBufferOStream out;
        writer(celsius)(out);
        return out.release();
    }
    double read(ByteBufferView bytes) const {
        ByteBufferIStream in(bytes);
        auto const payload = catalogue.getDeserialiserFor(GetParam(), getTypeID<Temperature>())(in);
        EXPECT_EQ(payload.elementCount, 1U);
        return payload.get<Temperature>(0).celsius;
    }
    Catalogue catalogue;
};

TEST_P(TemperatureModule, ReadsWhatItWrote) {
    for (double const celsius : {0.0, -273.15, 21.5, 1e300}) {
        ByteBuffer const bytes = written(celsius);
        EXPECT_DOUBLE_EQ(read(ByteBufferView(bytes)), celsius);
    }
}

TEST_P(TemperatureModule, RefusesBytesThatAreMissing) {
    ByteBuffer const bytes = written(21.5);
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        EXPECT_THROW(read(bytes.first(n)), std::runtime_error) << n;
    }
}

TEST_P(TemperatureModule, StopsWithoutABadByte) {
    stop_source stop;
    stop.request_stop();
    ByteBufferOStream out;
    EXPECT_THROW(writer(21.5)(stop.get_token(), out), std::system_error);
    EXPECT_EQ(out.size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(AllFormats, TemperatureModule, testing::Values("text", "binary"));

} // namespace
