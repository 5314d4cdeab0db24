// SPDX-License-Identifier: Apache-2.0
// Built by two compilers, with two values of WIRE_FORMAT.
#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>

#include <map>

using namespace courier::hub::core;
using namespace courier::hub::serialisation;
using Rows = std::map<std::string, std::uint64_t>; // each compiler has a spelling of its own

namespace {

struct Config {}; // named alike in both modules, and so is this file

void writeRows(Rows const& table, std::ostream& out) {
    for (auto const& [name, number] : table) {
        out << name << ' ' << number << '\n';
    }
    if (table.empty()) {
        throw std::range_error(WIRE_FORMAT " wants a row");
    }
}

Rows readRows(std::istream& in) {
    Rows table;
    for (std::string name; in >> name;) {
        in >> table[name];
    }
    return table;
}

// Sends rows in the format of every module, as a client does. Returns for each format what came
// back and how many exceptions were caught.
Rows sendByAll(Catalogue const& catalogue) {
    Rows result;
    for (auto const& format : catalogue.getSupportedWireFormats(getTypeID<Rows>())) {
        ByteBufferOStream out;
        auto const send = [&](Rows const& rows, std::string const& as) {
            GenericPayload payload;
            payload.emplace<Rows>(rows);
            createSerialisersFor(std::move(payload), catalogue, as).first.at(0)(out);
        };
        send({{format, 40}}, format);
        try {
            send({}, format);
        } catch (std::range_error const&) {
            ++result[format];
        }
        try {
            send({}, "unknown");
        } catch (LookUpError const&) {
            ++result[format];
        }
        ByteBufferIStream in(out.release());
        auto const read = catalogue.getDeserialiserFor(format, getTypeID<Rows>())(in);
        result[format] += read.get<Rows>(0).at(format);
    }
    return result;
}

} // namespace

void courier_register_module(Catalogue& catalogue) {
    addFormat<Rows>(catalogue, WIRE_FORMAT, writeRows, readRows);
    addWriter<Config>(catalogue, "config", [](Config const&, std::ostream&) {});
    addReader<Rows>(catalogue, "all, by " WIRE_FORMAT, [&](auto&) { return sendByAll(catalogue); });
}
