// SPDX-License-Identifier: Apache-2.0
// Sends files as one payload, receives them again and compares: an example of a program whose
// serialisers come from modules.

#include "examples/program/Run.h"
#include "examples/program/Sending.h"
#include "examples/roundtrip/Report.h"
#include "examples/roundtrip/Transfer.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;

struct Options : Sending {
    std::uint64_t readLimit = defaultReadLimit;
    bool list = false;
};

// Says how it went; returns the exit status.
int conclude(std::vector<Element> const& elements, Transfer const& result, bool isStopped) {
    std::size_t written = 0;
    std::size_t identical = 0;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        Outcome const& outcome = result.outcomes[i];
        written += outcome.isWritten ? 1 : 0;
        identical += outcome.isIdentical ? 1 : 0;
        if (!outcome.error.empty()) {
            std::cerr << "roundtrip: " << elements[i].name << ": cannot be "
                      << (outcome.isWritten ? "read back: " : "written: ") << outcome.error << '\n';
        }
    }
    std::string const all = " of " + counted(elements.size(), "element");
    std::cout << '\n'
              << identical << all << " came back identical; the payload was destroyed after "
              << static_cast<int>(result.untilReleased.count() * 1000) << " ms\n";
    if (identical == elements.size()) {
        return 0;
    }
    if (isStopped) {
        std::cerr << "roundtrip: cancelled when " << written << all << " had been written\n";
        return 130;
    }
    return 1;
}

int sendAndReceive(Options const& options, SerialisationCatalogue const& catalogue,
                   stop_source const& stop) {
    if (options.list) {
        printTypes(std::cout, catalogue);
        return 0;
    }
    auto const elements = loadAll(options.files, catalogue);
    auto const formats = resolveFormats(options.formats, elements, catalogue);

    Transfer const result = transfer(elements, formats, catalogue, stop, options.threads);
    printOutcomes(std::cout, elements, formats, result.outcomes);
    return conclude(elements, result, stop.stop_requested());
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Sends files as one payload, receives them again and compares. A .json file is sent "
        "as a Document, any other as a Blob. Without files, takes some of this project.",
        "roundtrip");
    options.addTo(app, "write and read");
    addReadLimit(app, options.readLimit);
    app.add_flag("--list", options.list, "Print the types, and the wire formats of each");
    return run(app, argc, argv, "roundtrip", options.readLimit,
               [&](auto const& catalogue, stop_source stop) {
                   return sendAndReceive(options, catalogue, std::move(stop));
               });
}
