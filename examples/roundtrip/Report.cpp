// SPDX-License-Identifier: Apache-2.0
#include "examples/roundtrip/Report.h"

#include <cstddef>
#include <ostream>

namespace courier::examples {

namespace {

std::string percentage(std::size_t out, std::size_t in) {
    double const share = 100 * static_cast<double>(out) / static_cast<double>(in);
    return share > 0 && share < 0.1 ? "<0.1 %" : fixed(share, 1) + " %";
}

std::string result(Outcome const& outcome) {
    if (!outcome.error.empty()) {
        return "FAILED";
    }
    if (!outcome.isRead) {
        return outcome.isWritten ? "written, not read back" : "not written";
    }
    return outcome.isIdentical ? "identical" : "DIFFERENT";
}

} // namespace

void printTypes(std::ostream& out, hub::serialisation::SerialisationCatalogue const& catalogue) {
    std::vector<Row> rows{{"type", "identifier", "written in", "read from"}};
    for (ElementType const& type : elementTypes) {
        rows.push_back({std::string(type.name), hexadecimal(type.id),
                        join(catalogue.getSupportedWireFormats(type.id), " "),
                        join(catalogue.getSupportedDeserialisationWireFormats(type.id), " ")});
    }
    printTable(out, rows, "<<<<");
}

void printOutcomes(std::ostream& out, std::vector<Element> const& elements,
                   std::vector<std::string> const& wireFormats,
                   std::vector<Outcome> const& outcomes) {
    std::vector<Row> rows{{"element", "type", "wire format", "bytes in", "bytes out", "ratio",
                           "write MB/s", "read MB/s", "result"}};
    for (std::size_t i = 0; i < elements.size(); ++i) {
        Element const& element = elements[i];
        Outcome const& outcome = outcomes[i];
        std::size_t const in = element.size;
        bool const isWritten = outcome.isWritten && in != 0;
        rows.push_back({element.name, std::string(element.type().name), wireFormats[i], grouped(in),
                        outcome.isWritten ? grouped(outcome.bytesOut) : "-",
                        isWritten ? percentage(outcome.bytesOut, in) : "-",
                        isWritten ? speed(in, outcome.writing) : "-",
                        isWritten && outcome.isRead ? speed(in, outcome.reading) : "-",
                        result(outcome)});
    }
    printTable(out, rows, "<<<>>>>><");
}

} // namespace courier::examples
