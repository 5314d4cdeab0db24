// SPDX-License-Identifier: Apache-2.0
#include "Program.h"

#include "Modules.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>

namespace courier::examples {

using namespace hub::serialisation;

namespace {

std::filesystem::path programFile() { return std::filesystem::read_symlink("/proc/self/exe"); }

void stopOnInterrupt(stop_source stop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A thread waits for the signal, as a handler could do next to nothing.
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

} // namespace

int run(CLI::App& app, int argc, char** argv, std::string const& name,
        std::uint64_t const& readLimit, Program const& program) {
    CLI11_PARSE(app, argc, argv);
    stop_source const stop;
    stopOnInterrupt(stop);

    // The order matters. Records, serialisers, elements that were read and even exceptions may
    // refer to code of the modules, so the modules come first and go last.
    Modules modules;
    try {
        Catalogue catalogue;
        modules.load(programFile().parent_path().parent_path() / "modules", catalogue, readLimit);
        return program(catalogue, stop);
    } catch (std::exception const& error) {
        std::cerr << name << ": " << error.what() << '\n';
        return 1;
    }
}

void Sending::addTo(CLI::App& app, std::string const& whatThreadsDo) {
    app.add_option("files", files, "The files to send")->type_name("FILE");
    app.add_option("-f,--format", formats,
                   "Wire format: once for all files, or once for each of them; * takes the one "
                   "registered first")
        ->allow_extra_args(false)
        ->type_name("FORMAT")
        ->capture_default_str();
    app.add_option("-t,--threads", threads, "Threads that " + whatThreadsDo)
        ->check(CLI::Range(1, 256))
        ->type_name("N")
        ->capture_default_str();
}

void addReadLimit(CLI::App& app, std::uint64_t& bytes) {
    app.add_option("--read-limit", bytes, "The most memory that reading one element may take")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("SIZE")
        ->default_str("4GiB");
}

std::vector<Element> loadAll(std::vector<std::string> const& files,
                             SerialisationCatalogue const& catalogue) {
    std::vector<Element> elements;
    elements.reserve(files.size());
    for (auto const& file : files) {
        elements.push_back(load(file, file, catalogue));
    }
    if (files.empty()) {
        auto const program = programFile();
        auto const root = program.parent_path() / PROJECT_ROOT_FROM_PROGRAM;
        for (auto const& file : {root / "LICENSE", root / "CMakePresets.json", program}) {
            elements.push_back(load(file, file.filename(), catalogue));
        }
        elements.push_back(list(root / "examples" / "modules", "modules/"));
        elements.push_back(countBytes(program, "bytes of " + std::string(program.filename())));
    }
    return elements;
}

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
        if (formats.empty()) {
            throw std::runtime_error("no module writes " + std::string(type.name) + " (" +
                                     elements[i].name + ")");
        }
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

} // namespace courier::examples
