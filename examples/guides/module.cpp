// SPDX-License-Identifier: Apache-2.0
// The module of docs/guides/modules.md: loaded at run time by host.cpp.

#include "Temperature.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <functional>
#include <istream>
#include <ostream>
#include <stdexcept>
#include <utility>

using namespace courier::hub::serialisation;

namespace {

GenericSerialiser makeSerialiser(GenericPayloadView&& view, stop_source&& stop) {
    auto write = [view = std::move(view)](stop_token const& token, std::ostream& out) {
        if (!token.stop_requested()) {
            out << view.get<Temperature>().celsius << '\n';
        }
    };
    return GenericSerialiser(std::move(write), std::move(stop));
}

Temperature readTemperature(std::istream& in) {
    Temperature temperature{};
    if (!(in >> temperature.celsius)) {
        throw std::runtime_error("not a temperature");
    }
    return temperature;
}

} // namespace

extern "C" [[gnu::visibility("default")]] void courier_register_module(Catalogue& catalogue) {
    constexpr auto id = courier::hub::core::getTypeID<Temperature>();
    auto const unstoppable = [](GenericPayloadView&& view) {
        return makeSerialiser(std::move(view), stop_source());
    };
    catalogue.add(Serialiser("text", id, {id}, unstoppable, makeSerialiser, nullptr));
    catalogue.add(Deserialiser("text", id, GenericDeserialiser(std::function(readTemperature))));
}
