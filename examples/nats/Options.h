// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_OPTIONS_H
#define COURIER_EXAMPLES_NATS_OPTIONS_H

#include "examples/nats/Messages.h"

#include <CLI/CLI.hpp>

#include <string>

namespace courier::examples {

/// The options that all programs of a stream have.
inline void addOptions(CLI::App& app, Place& place) {
    nats::Access& access = place.access;
    app.add_option("--url", access.urls,
                   "Servers of the cluster, or some of them: nats:// or tls:// URLs")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("URL,...")
        ->capture_default_str();
    app.add_option("--ca", access.ca,
                   "Certificates that sign the servers', instead of the system's")
        ->check(CLI::ExistingFile)
        ->type_name("FILE");
    app.add_option("--credentials", access.credentials, "A credentials file of NATS")
        ->check(CLI::ExistingFile)
        ->type_name("FILE");
    app.add_option("--user", access.user, "The user name")->type_name("NAME");
    // From the environment, because every user of a machine can read command lines.
    app.add_option("--password", access.password, "The user's password; better in NATS_PASSWORD")
        ->envname("NATS_PASSWORD")
        ->type_name("TEXT");
    app.add_option("--token", access.token, "A token; better in NATS_TOKEN")
        ->envname("NATS_TOKEN")
        ->type_name("TEXT");
    app.add_option("--stream", place.stream, "The stream; it is made if it does not exist")
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
    app.add_option("--max-bytes", place.maxBytes, "The most that the stream's elements may take")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("SIZE");
    app.add_option("--attempts", place.attempts, "Deliveries of an element before it is given up")
        ->check(CLI::Range(1, 1000))
        ->type_name("N")
        ->capture_default_str();
    app.add_option_function<int>(
           "--redeliver-after",
           [&place](int seconds) { place.redeliverAfter = std::chrono::seconds(seconds); },
           "Seconds without a sign of life until an element goes to another worker")
        ->check(CLI::Range(1, 3600))
        ->type_name("SECONDS")
        ->default_str("10");
}

/// Makes the streams and the queue of elements that do not exist yet.
inline void prepare(nats::Session const& session, Place const& place) {
    session.make(place.elements());
    session.make(place.results());
    session.make(place.workers());
}

} // namespace courier::examples

#endif
