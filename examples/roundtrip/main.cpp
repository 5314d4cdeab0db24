// SPDX-License-Identifier: Apache-2.0
// Sends files as one payload, receives them again and compares: an example of a program whose
// serialisers come from modules.

#include "Modules.h"
#include "ReadLimit.h"
#include "Report.h"
#include "Transfer.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;

struct Options {
    std::vector<std::string> files;
    std::vector<std::string> formats{"*"};
    std::size_t threads = std::max(1U, std::thread::hardware_concurrency());
    std::uint64_t readLimit = std::uint64_t{4} << 30;
    std::optional<std::uint32_t> cancelAfter; // milliseconds
    bool list = false;
};

std::filesystem::path programFile() { return std::filesystem::read_symlink("/proc/self/exe"); }

// A thread of its own waits for the signal, as a handler could do next to nothing. Call this before
// any other thread starts: those started later must not take the signal themselves.
void stopOnInterrupt(stop_source stop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals, stop]() mutable {
        int signal = 0;
        ::sigwait(&signals, &signal);
        stop.request_stop();
        // Whoever asks again later on ends the program at once. What comes in the next second does
        // not count: some tools send the signal twice in a row.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        timespec const none{};
        ::sigtimedwait(&signals, nullptr, &none);
        ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        ::pause();
    }).detach();
}

// The limit is a setting of the module: any of its deserialisers carries it.
void limitReads(SerialisationCatalogue const& catalogue, std::uint64_t bytes) {
    for (ElementType const& type : elementTypes) {
        for (auto const& format : catalogue.getSupportedDeserialisationWireFormats(type.id)) {
            auto const handle = catalogue.getDeserialiserFor(format, type.id).getHandle();
            std::static_pointer_cast<ReadLimit>(handle)->bytes = bytes;
        }
    }
}

std::vector<Element> loadAll(std::vector<std::string> const& files,
                             SerialisationCatalogue const& catalogue) {
    std::vector<Element> elements;
    elements.reserve(files.size());
    for (auto const& file : files) {
        elements.push_back(load(file, file, catalogue));
    }
    if (files.empty()) {
        // A text, a JSON document and a binary of this project itself.
        auto const program = programFile();
        auto const root = program.parent_path() / ROUNDTRIP_PROJECT_ROOT;
        for (auto const& file : {root / "LICENSE", root / "CMakePresets.json", program}) {
            elements.push_back(load(file, file.filename(), catalogue));
        }
    }
    return elements;
}

// The wire format of each element, by its real name: the receiver cannot ask for "*".
std::vector<std::string> resolveFormats(std::vector<std::string> wanted,
                                        std::vector<Element> const& elements,
                                        SerialisationCatalogue const& catalogue) {
    if (wanted.size() == 1) {
        wanted.assign(elements.size(), std::string(wanted.front()));
    }
    if (wanted.size() != elements.size()) {
        throw std::runtime_error(
            std::string(wanted.size() < elements.size() ? "too few" : "too many") +
            " wire formats: " + counted(wanted.size(), "wire format") + " for " +
            counted(elements.size(), "element"));
    }
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        ElementType const& type = elements[i].type();
        auto const formats = catalogue.getSupportedWireFormats(type.id);
        if (wanted[i] == "*") {
            wanted[i] = catalogue.getSerialiserFor("*", type.id).getWireFormat();
        } else if (std::find(formats.begin(), formats.end(), wanted[i]) == formats.end()) {
            throw std::runtime_error("no module writes " + std::string(type.name) + " as \"" +
                                     wanted[i] + "\" (" + elements[i].name + "); there is " +
                                     join(formats, ", "));
        }
    }
    return wanted;
}

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
              << identical << all << " came back identical; the payload was gone after "
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

int run(Options const& options, SerialisationCatalogue const& catalogue, stop_source stop) {
    if (options.list) {
        printTypes(std::cout, catalogue);
        return 0;
    }
    limitReads(catalogue, options.readLimit);
    auto const elements = loadAll(options.files, catalogue);
    auto const formats = resolveFormats(options.formats, elements, catalogue);

    auto const deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(options.cancelAfter.value_or(0));
    auto const cancelWhenDue = [&] {
        if (options.cancelAfter && std::chrono::steady_clock::now() >= deadline) {
            stop.request_stop();
        }
    };
    cancelWhenDue(); // for 0, before anything is written

    std::size_t total = 0;
    for (Element const& element : elements) {
        total += element.fileSize;
    }
    bool const isProgressShown = total > std::size_t{64} << 20 && ::isatty(STDERR_FILENO) == 1;
    Transfer const result = transfer(elements, formats, catalogue, stop, options.threads,
                                     [&](Progress const& progress) {
                                         cancelWhenDue();
                                         if (isProgressShown) {
                                             printProgress(std::cerr, progress, elements.size());
                                         }
                                     });
    if (isProgressShown) {
        std::cerr << "\r\033[K";
    }
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
    app.add_option("files", options.files, "The files to send")->type_name("FILE");
    app.add_option("-f,--format", options.formats,
                   "Wire format: once for all files, or once for each of them; * takes the one "
                   "registered first")
        ->allow_extra_args(false)
        ->type_name("FORMAT")
        ->capture_default_str();
    app.add_option("-t,--threads", options.threads, "Threads that write and read")
        ->check(CLI::Range(1, 256))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--cancel-after", options.cancelAfter, "Ask for a stop after this time")
        ->check(CLI::NonNegativeNumber)
        ->type_name("MS");
    app.add_option("--read-limit", options.readLimit,
                   "The most memory that reading one element may take")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("SIZE")
        ->default_str("4GiB");
    app.add_flag("--list", options.list, "Print the types, and the wire formats of each");
    CLI11_PARSE(app, argc, argv);

    stop_source const stop;
    stopOnInterrupt(stop);

    // The order matters. Records, serialisers, elements that were read and even exceptions may
    // refer to code of the modules, so the modules come first and go last.
    Modules modules;
    try {
        Catalogue catalogue;
        modules.load(programFile().parent_path() / "modules", catalogue);
        return run(options, catalogue, stop);
    } catch (std::exception const& error) {
        std::cerr << "roundtrip: " << error.what() << '\n';
        return 1;
    }
}
