// SPDX-License-Identifier: Apache-2.0
#include "examples/program/Run.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <set>
#include <stdexcept>
#include <thread>

namespace courier::examples {

using namespace hub::serialisation;

namespace {

void stopOnInterrupt(stop_source stop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A thread waits for the signal, because a handler may call hardly any function.
    std::thread([signals, stop]() mutable {
        int signal = 0;
        ::sigwait(&signals, &signal);
        stop.request_stop();
        // A second signal ends the program. One within the next second is ignored, as some tools
        // send each signal twice.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        timespec const none{};
        ::sigtimedwait(&signals, nullptr, &none);
        ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        ::pause();
    }).detach();
}

} // namespace

void addReadLimit(CLI::App& app, std::uint64_t& bytes) {
    app.add_option("--read-limit", bytes, "The most memory that reading one element may take")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("SIZE")
        ->default_str("256MiB");
}

std::vector<Module> loadModules(std::filesystem::path const& directory) {
    std::set<std::filesystem::path> files;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() == ".so") {
            files.insert(entry.path());
        }
    }
    if (files.empty()) {
        throw std::runtime_error("no modules in " + directory.string());
    }
    return std::vector<Module>(files.begin(), files.end());
}

std::filesystem::path programFile() { return std::filesystem::read_symlink("/proc/self/exe"); }

int run(CLI::App& app, int argc, char** argv, std::string const& name,
        std::uint64_t const& readLimit, Program const& program) {
    CLI11_PARSE(app, argc, argv);
    stop_source const stop;
    stopOnInterrupt(stop);

    // Records, serialisers, elements that were read and even exceptions may refer to code of the
    // modules, so the modules are declared first and unloaded last.
    std::vector<Module> modules;
    try {
        modules = loadModules(programFile().parent_path().parent_path() / "modules");
        Catalogue catalogue;
        setReadLimit(catalogue, readLimit);
        for (Module const& module : modules) {
            module.registerIn(catalogue);
        }
        return program(catalogue, stop);
    } catch (std::exception const& error) {
        std::cerr << name << ": " << error.what() << '\n';
        return 1;
    }
}

} // namespace courier::examples
