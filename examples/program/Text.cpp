// SPDX-License-Identifier: Apache-2.0
#include "examples/program/Text.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace courier::examples {

namespace {

// Characters, not bytes: those that continue a UTF-8 sequence take no room.
std::size_t width(std::string const& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](unsigned char c) { return (c & 0xC0U) != 0x80U; }));
}

} // namespace

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
        digits.insert(i -= 3, 1, ',');
    }
    return digits;
}

std::string speed(std::size_t bytes, Seconds time) {
    double const rate = static_cast<double>(bytes) / 1e6 / time.count();
    return rate < 100 ? fixed(rate, 1) : grouped(static_cast<std::size_t>(rate));
}

std::string hexadecimal(std::uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << std::setfill('0') << std::setw(16) << value;
    return text.str();
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

std::vector<std::string> split(std::string_view text, char separator, std::size_t count) {
    std::vector<std::string> texts{""};
    for (char const c : text) {
        c == separator ? void(texts.emplace_back()) : texts.back().push_back(c);
        if (count != 0 && texts.size() > count) {
            break; // whatever the text has, it does not take more memory
        }
    }
    if (count != 0 && texts.size() != count) {
        throw std::runtime_error("it does not have " + std::to_string(count) + " parts");
    }
    return texts;
}

} // namespace courier::examples
