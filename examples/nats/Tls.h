// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_TLS_H
#define COURIER_EXAMPLES_NATS_TLS_H

#include <string>

namespace courier::examples::nats {

/// Why a TLS connection to this server fails, in words for the user. The NATS client only reports
/// that it did. Tries again, with the CA certificates of a file or, if it is empty, the system's.
[[nodiscard]] std::string whyTlsFails(std::string const& url, std::string const& ca);

} // namespace courier::examples::nats

#endif
