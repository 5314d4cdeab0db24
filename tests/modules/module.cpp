// SPDX-License-Identifier: Apache-2.0
// Built by two compilers, under two values of WIRE_FORMAT. Registers that format and a "client of"
// it, which does with the formats of every module what a client does, and writes how that went.
#include "Module.h"
#include "Registration.h"
#include "Table.h"

#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Streams.h>

#include <stdexcept>

using namespace courier::examples;
using namespace courier::hub;
using tests::Element;

namespace {

void writeRows(Element const& element, std::ostream& out) {
    for (auto const& [name, number] : element.rows) {
        if (name.empty()) {
            throw std::range_error(WIRE_FORMAT " wants a name");
        }
        out << name << ' ' << number << '\n';
    }
}

Element readRows(std::istream& in, ReadBudget const&) {
    Element element;
    for (std::string name; in >> name;) {
        in >> element.rows[name];
    }
    return element;
}

core::GenericPayload payloadOf(Element const& element) {
    core::GenericPayload payload;
    payload.add(std::make_shared<Element>(element));
    return payload;
}

void send(Element const& element, serialisation::Catalogue const& catalogue, std::ostream& out) {
    for (auto const& format : catalogue.getSupportedWireFormats(core::getTypeID<Element>())) {
        if (format.starts_with("client")) {
            continue;
        }
        out << format << ':';
        serialisation::ByteBufferOStreambuf sink;
        std::ostream bytes(&sink);
        auto const fanOut = [&](Element const& payload, std::vector<std::string> const& formats) {
            serialisation::createSerialisersFor(payloadOf(payload), catalogue, formats)
                .first.at(0)(bytes);
        };
        fanOut(element, {format});
        serialisation::ByteBufferIStreambuf source(
            std::make_unique<serialisation::ByteBuffer>(sink.release()));
        std::istream in(&source);
        auto const read = catalogue.getDeserialiserFor(format, core::getTypeID<Element>())(in);
        out << (read.get<Element>(0).rows == element.rows ? " equal" : " different");
        try {
            fanOut({{{"", 1}}}, {format});
        } catch (std::range_error const&) {
            out << " range_error";
        }
        try {
            fanOut(element, {});
        } catch (std::out_of_range const&) {
            out << " out_of_range";
        }
        out << '\n';
    }
}

} // namespace

void courier_register_module(serialisation::Catalogue& catalogue) {
    auto const limit = std::make_shared<ReadLimit>();
    registerFormat<Element>(catalogue, WIRE_FORMAT, limit, writeRows, readRows);
    auto const sendToAll = [&catalogue](Element const& element, std::ostream& out) {
        send(element, catalogue, out);
    };
    registerFormat<Element>(catalogue, "client of " WIRE_FORMAT, limit, sendToAll, readRows);
}
