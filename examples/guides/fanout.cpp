// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/fan-out.md.

#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Streams.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <iostream>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;

struct Sheet { // has a name outside this file, as element types must
    std::vector<int> rows;
};

namespace {

void write(Sheet const& sheet, stop_token const& token, std::ostream& out) {
    for (int const row : sheet.rows) {
        if (token.stop_requested()) {
            out.setstate(std::ios::failbit); // what was written is no whole element
            return;
        }
        out << row << '\n';
    }
}

void registerSheets(Catalogue& catalogue) {
    auto const routine = [](GenericPayloadView&& view) -> GenericSerialiser::Routine {
        return [view = std::move(view)](stop_token const& token, std::ostream& out) {
            write(view.get<Sheet>(), token, out);
        };
    };
    auto const once = [routine](GenericPayloadView&& view) {
        return GenericSerialiser(routine(std::move(view)));
    };
    auto const stoppable = [routine](GenericPayloadView&& view, stop_source&& stop) {
        return GenericSerialiser(routine(std::move(view)), std::move(stop));
    };
    constexpr auto id = courier::hub::core::getTypeID<Sheet>();
    catalogue.add(Serialiser("text", id, {id}, once, stoppable, nullptr));
}

GenericPayload makePayload() {
    GenericPayload payload;
    payload.add(std::make_shared<Sheet>(Sheet{std::vector(1000, 7)}));
    payload.add(std::make_shared<Sheet>(Sheet{std::vector(2000, 8)}));
    return payload;
}

void writeOnThreads(Catalogue const& catalogue) {
    auto [serialisers, sentinel] = createSerialisersFor(makePayload(), catalogue, "text");
    std::vector<ByteBuffer> written(serialisers.size());
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < serialisers.size(); ++i) {
            threads.emplace_back([&out = written[i], write = std::move(serialisers[i])] {
                ByteBufferOStreambuf sink;
                std::ostream stream(&sink);
                write(stream);
                out = sink.release();
            });
        }
        serialisers.clear(); // each thread has its own, and drops it when it ends
    }
    sentinel->wait(); // the payload's memory is free
    for (ByteBuffer const& bytes : written) {
        std::cout << bytes.size() << " bytes\n";
    }
}

void stopWriting(Catalogue const& catalogue) {
    stop_source stop;
    std::vector<std::string> const formats(2, "text");
    auto [serialisers, sentinel] = createSerialisersFor(makePayload(), catalogue, formats, stop);
    stop.request_stop(); // from any thread, at any moment
    ByteBufferOStreambuf sink;
    std::ostream out(&sink);
    serialisers.front()(out);
    std::cout << (out ? "written" : "stopped") << " after " << sink.size() << " bytes\n";

    bool const early = sentinel->waitFor(std::chrono::milliseconds(1));
    serialisers.clear();
    bool const late = sentinel->isReleased();
    std::cout << "released: " << early << ", then " << late << '\n';
}

} // namespace

int main() {
    Catalogue catalogue;
    registerSheets(catalogue);
    writeOnThreads(catalogue);
    stopWriting(catalogue);
}
