// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_REGISTRATION_H
#define COURIER_EXAMPLES_REGISTRATION_H

#include "ReadLimit.h"
#include "StoppableStream.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <functional>
#include <istream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace courier::examples {

/// Registers how an Element is written and read in one wire format:
///
///     write(Element const&, StoppableStream&)    flushing is done here
///     Element read(std::istream&, ReadBudget)
///
/// Both are copied, and may be called on several threads at once.
template <class Element, class Write, class Read>
void registerFormat(hub::serialisation::Catalogue& catalogue, std::string const& wireFormat,
                    std::shared_ptr<ReadLimit> limit, Write write, Read read) {
    using namespace hub::serialisation;
    using hub::core::GenericPayload;

    // All three kinds of serialiser run this one routine. The view in it keeps the payload alive.
    auto const routineFor = [write](GenericPayloadView&& view) -> GenericSerialiser::Routine {
        return [write, view = std::move(view)](stop_token token, std::ostream& out) {
            StoppableStream stream(std::move(token), out);
            write(std::as_const(view.get<Element>()), stream);
            stream.flush();
        };
    };
    auto const typeID = hub::core::getTypeID<Element>();
    catalogue.add(Serialiser(
        wireFormat, typeID, {typeID},
        [routineFor](GenericPayloadView&& view) {
            return GenericSerialiser(routineFor(std::move(view)));
        },
        [routineFor](GenericPayloadView&& view, stop_source&& stop) {
            return GenericSerialiser(routineFor(std::move(view)), std::move(stop));
        },
        [routineFor](GenericPayload&& payload) {
            // Without a record for its whole list of types, the first type's record is asked.
            if (payload.elementCount != 1) {
                throw std::invalid_argument("only payloads of one element can be written");
            }
            auto owned = std::make_unique<GenericPayloadWrapper>(std::move(payload));
            GenericPayloadWrapperPtr shared(owned.get());
            static_cast<void>(owned.release()); // the counted reference owns it now
            return GenericSerialiser(routineFor(GenericPayloadView(std::move(shared), 0)));
        }));

    std::function<Element(std::istream&)> routine = [limit, read](std::istream& in) {
        return read(in, ReadBudget(*limit));
    };
    catalogue.add(Deserialiser(wireFormat, typeID, GenericDeserialiser(std::move(routine), limit)));
}

} // namespace courier::examples

#endif
