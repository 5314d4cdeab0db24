// SPDX-License-Identifier: Apache-2.0
// A module whose elements say what their reader does: "abort", "exit" or "sleep SECONDS".
#include "examples/modules/elements/Blob.h"

#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>

#include <unistd.h>

#include <cstdlib>
#include <iterator>

using namespace courier::hub::serialisation;
using courier::examples::Blob;

void courier_register_module(Catalogue& catalogue) {
    auto const write = [](Blob const& blob, std::ostream& out) {
        for (std::byte const byte : blob.bytes()) {
            out.put(std::to_integer<char>(byte));
        }
    };
    auto const read = [](std::istream& in) {
        std::string const text(std::istreambuf_iterator<char>(in), {});
        if (text == "abort") {
            std::abort();
        } else if (text == "exit") {
            std::exit(0);
        } else if (text.starts_with("sleep ")) {
            ::sleep(static_cast<unsigned>(std::stoul(text.substr(6))));
        }
        return Blob(ByteBuffer());
    };
    addFormat<Blob>(catalogue, "trap", write, read);
}
