// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_COURIER_OPTIONS_H
#define COURIER_EXAMPLES_COURIER_OPTIONS_H

#include "Messages.h"

#include <CLI/CLI.hpp>

namespace courier::examples {

/// The options of both programs: they must be the same for those who are to meet.
inline void addOptions(CLI::App& app, Place& place) {
    app.add_option("-u,--url", place.servers.urls,
                   "The servers of the cluster, or some of them: nats:// or tls:// URLs")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("URL,...")
        ->capture_default_str();
    app.add_option("--credentials", place.servers.credentials, "A credentials file of NATS")
        ->check(CLI::ExistingFile)
        ->type_name("FILE");
    app.add_option("--stream", place.stream, "The stream; it is made where it is not there")
        ->check([](std::string const& name) {
            return name.empty() || name.find_first_of(" \t\r\n.*>/\\") != std::string::npos
                       ? "must be one word"
                       : "";
        })
        ->type_name("NAME")
        ->capture_default_str();
    app.add_option("--replicas", place.replicas, "Servers that hold each message")
        ->check(CLI::Range(1, 5))
        ->type_name("N")
        ->capture_default_str();
}

/// Makes the stream and the queue of its elements, or finds them made.
inline void prepare(nats::Session const& session, Place const& place) {
    session.makeStream(place.stream, place.everything(), place.replicas);
    session.makeQueue(place.stream, workers, place.elements(), workersPatience, {});
}

} // namespace courier::examples

#endif
