// SPDX-License-Identifier: Apache-2.0
#include "Report.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <sstream>

namespace courier::examples {

namespace {

using Row = std::vector<std::string>;

// Characters, not bytes: those that continue a UTF-8 sequence take no room.
std::size_t width(std::string const& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](unsigned char c) { return (c & 0xC0U) != 0x80U; }));
}

// Columns as wide as their widest cell; those marked with '>' are set to the right.
void printTable(std::ostream& out, std::vector<Row> const& rows, std::string_view alignment) {
    std::vector<std::size_t> widths(alignment.size(), 0);
    for (Row const& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], width(row[i]));
        }
    }
    for (Row const& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            std::string const space(widths[i] - width(row[i]), ' ');
            line += i == 0 ? "" : "  ";
            line += alignment[i] == '>' ? space + row[i] : row[i] + space;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

std::string fixed(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

std::string grouped(std::size_t n) {
    std::string digits = std::to_string(n);
    for (std::size_t i = digits.size(); i > 3;) {
        digits.insert(i -= 3, ",");
    }
    return digits;
}

std::string percentage(std::size_t out, std::size_t in) {
    double const share = 100 * static_cast<double>(out) / static_cast<double>(in);
    return share > 0 && share < 0.1 ? "<0.1 %" : fixed(share, 1) + " %";
}

std::string speed(std::size_t bytes, Seconds time) {
    double const rate = static_cast<double>(bytes) / 1e6 / time.count();
    return rate < 100 ? fixed(rate, 1) : grouped(static_cast<std::size_t>(rate));
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
        std::ostringstream id;
        id << "0x" << std::hex << std::setfill('0') << std::setw(16) << type.id;
        rows.push_back({std::string(type.name), id.str(),
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
        std::size_t const in = element.fileSize;
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

void printProgress(std::ostream& out, Progress const& progress, std::size_t elements) {
    std::ostringstream line; // written at once, so that it does not flicker
    line << "\r\033[K" << grouped(progress.bytesOut / 1'000'000) << " MB written, "
         << progress.written << " of " << counted(elements, "element") << " complete, "
         << progress.done << " read back";
    out << line.str() << std::flush;
}

std::string counted(std::size_t n, std::string_view thing) {
    return std::to_string(n) + ' ' + std::string(thing) + (n == 1 ? "" : "s");
}

std::string join(std::vector<std::string> const& texts, std::string_view separator) {
    std::string joined;
    for (auto const& text : texts) {
        joined += joined.empty() ? "" : separator;
        joined += text;
    }
    return joined;
}

} // namespace courier::examples
