// SPDX-License-Identifier: Apache-2.0
// A module whose elements say what their reader does: "abort", "exit" or "sleep SECONDS".
#include "examples/modules/elements/Blob.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <string>
#include <thread>

using namespace courier::hub::serialisation;
using courier::examples::Blob;

namespace {

void writeTrap(Blob const& blob, std::ostream& out) {
    auto const bytes = blob.bytes();
    out.write(reinterpret_cast<char const*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

Blob readTrap(std::istream& in) {
    std::string const text(std::istreambuf_iterator<char>(in), {});
    if (text == "abort") {
        std::abort();
    } else if (text == "exit") {
        std::exit(0);
    } else if (text.starts_with("sleep ")) {
        std::this_thread::sleep_for(std::chrono::seconds(std::stoi(text.substr(6))));
    }
    return Blob(ByteBuffer());
}

} // namespace

void courier_register_module(Catalogue& catalogue) {
    addFormat<Blob>(catalogue, "trap", writeTrap, readTrap);
}
