// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_TLS_H
#define COURIER_EXAMPLES_NATS_TLS_H

#include <string>

namespace courier::examples::nats {

/// Explains to the user why a TLS connection to this server fails, which the NATS client does not.
/// Connects once more, with the CA certificates of a file or, if `ca` is empty, the system's.
[[nodiscard]] std::string whyTlsFails(std::string const& url, std::string const& ca);

} // namespace courier::examples::nats

#endif
