// SPDX-License-Identifier: Apache-2.0
// Built by two compilers, with two values of WIRE_FORMAT. Registers that format and a "client of"
// it, which uses the formats of every module as clients do, and writes the results.
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
        if (name.empty()) {
            throw std::range_error(WIRE_FORMAT " wants a name");
        }
        out << name << ' ' << number << '\n';
    }
}

Rows readRows(std::istream& in) {
    Rows table;
    for (std::string name; in >> name;) {
        in >> table[name];
    }
    return table;
}

void send(Rows const& table, Catalogue const& catalogue, std::ostream& out) {
    for (auto const& format : catalogue.getSupportedWireFormats(getTypeID<Rows>())) {
        if (format.starts_with("client")) {
            continue;
        }
        ByteBufferOStream bytes;
        auto const fanOut = [&](Rows const& rows, std::vector<std::string> const& formats) {
            GenericPayload payload;
            payload.add(std::make_shared<Rows>(rows));
            createSerialisersFor(std::move(payload), catalogue, formats).first.at(0)(bytes);
        };
        fanOut(table, {format});
        ByteBufferIStream in(bytes.release());
        auto const payload = catalogue.getDeserialiserFor(format, getTypeID<Rows>())(in);
        out << format << (payload.get<Rows>(0) == table ? ": equal" : ": different");
        try {
            fanOut({{"", 1}}, {format});
        } catch (std::range_error const&) {
            out << " range_error";
        }
        try {
            fanOut(table, {});
        } catch (std::out_of_range const&) {
            out << " out_of_range\n";
        }
    }
}

} // namespace

void courier_register_module(Catalogue& catalogue) {
    addFormat<Rows>(catalogue, WIRE_FORMAT, writeRows, readRows);
    addWriter<Config>(catalogue, "config", [](Config const&, std::ostream&) {});
    addWriter<Rows>(catalogue, "client of " WIRE_FORMAT,
                    [&](Rows const& table, std::ostream& out) { send(table, catalogue, out); });
}
