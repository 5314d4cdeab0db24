// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/fan-out.md.

#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>

#include <chrono>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <ostream>
#include <system_error>
#include <utility>
#include <vector>

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;

namespace {

struct Sheet {
    std::vector<int> rows;
};

void writeSheet(Sheet const& sheet, std::ostream& out, stop_token const& token) {
    for (int const row : sheet.rows) {
        throwIfStopped(token);
        out << row << '\n';
    }
}

GenericPayload makePayload() {
    GenericPayload payload;
    payload.emplace<Sheet>(Sheet{std::vector(1000, 7)});
    payload.emplace<Sheet>(Sheet{std::vector(2000, 8)});
    return payload;
}

void writeOnThreads(Catalogue const& catalogue) {
    auto [serialisers, sentinel] = createSerialisersFor(makePayload(), catalogue, "text");
    std::vector<std::future<ByteBuffer>> written;
    for (GenericSerialiser& each : serialisers) {
        written.push_back(std::async(std::launch::async, [serialise = std::move(each)]() mutable {
            ByteBufferOStream out;
            std::move(serialise)(out); // releases its share of the payload, even if it throws
            return out.release();
        }));
    }
    sentinel->wait(); // the payload's memory is free
    for (std::future<ByteBuffer>& bytes : written) {
        std::cout << bytes.get().size() << " bytes\n"; // throws what the write threw
    }
}

void writeInPool(Catalogue const& catalogue) {
    std::vector<std::function<void()>> pool; // whose tasks must be copyable
    auto [serialisers, sentinel] = createSerialisersFor(makePayload(), catalogue, "text");
    for (GenericSerialiser& each : serialisers) {
        auto serialise = std::make_shared<GenericSerialiser>(std::move(each));
        pool.emplace_back([serialise] {
            ByteBufferOStream out;
            std::invoke(std::move(*serialise), out); // frees its share even if the task is kept
        });
    }
    for (std::function<void()> const& task : pool) {
        task();
    }
    std::cout << "released: " << sentinel->isReleased() << '\n';
}

void stopWriting(Catalogue const& catalogue) {
    stop_source stop;
    auto [serialisers, sentinel] = createSerialisersFor(makePayload(), catalogue, "text", stop);
    stop.request_stop(); // from any thread, at any moment
    ByteBufferOStream out;
    try {
        serialisers.front()(out);
    } catch (std::system_error const& error) {
        if (error.code() != std::errc::operation_canceled) {
            throw;
        }
        std::cout << "stopped after " << out.size() << " bytes\n";
    }

    bool const early = sentinel->waitFor(std::chrono::milliseconds(1));
    serialisers.clear();
    bool const late = sentinel->isReleased();
    std::cout << "released: " << early << ", then " << late << '\n';
}

} // namespace

int main() {
    Catalogue catalogue;
    addWriter<Sheet>(catalogue, "text", writeSheet);
    writeOnThreads(catalogue);
    writeInPool(catalogue);
    stopWriting(catalogue);
}
