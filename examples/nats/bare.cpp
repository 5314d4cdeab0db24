// SPDX-License-Identifier: Apache-2.0
// The baseline for the sender and its workers: moves messages of one size through a stream of the
// same kind with hardly more than the client library. Prints messages a second.

#include "examples/nats/Messages.h"

#include <iostream>
#include <thread>

using namespace courier::examples;
using namespace courier::examples::nats;

int main(int argc, char** argv) {
    Servers options;
    options.stream = "bare";
    int count = 5000;
    std::size_t size = 1000;
    CLI::App app("Measures what the client library can do.", "bare");
    options.addTo(app);
    app.add_option("--count", count, "Messages")->capture_default_str();
    app.add_option("--size", size, "Bytes of each")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    Session session(options, "bare", [](auto const&) {}); // makes the stream and the queue
    session.join(options.stream, "takers", options.stream + ".>", std::chrono::seconds(10),
                 std::chrono::seconds(0));
    natsConnection* connection = nullptr;
    natsConnection_ConnectTo(&connection, options.urls.front().c_str());
    jsOptions settings;
    jsOptions_Init(&settings);
    settings.PublishAsync.MaxPending = 4096;
    settings.PublishAsync.StallWait = 60'000;
    jsCtx* jetStream = nullptr;
    natsConnection_JetStream(&jetStream, connection, &settings);
    auto const start = Clock::now();
    std::jthread const publisher([&] {
        std::string const bytes(size, '\0');
        courier::hub::serialisation::ByteBufferView const view{std::string_view(bytes)};
        for (int i = 0; i < count; ++i) {
            auto const subject = options.stream + ".run." + std::to_string(i);
            natsMsg* message = makeElement(subject, {"raw", 1, 1}, view).release();
            js_PublishMsgAsync(jetStream, &message, nullptr);
        }
    });
    for (int done = 0; done < count;) { // the client's own fetching writes past its list
        for (auto const& message : session.fetch(256, std::chrono::milliseconds(20))) {
            session.answer(natsMsg_GetReply(message.get()), "+ACK");
            ++done;
        }
    }
    std::chrono::duration<double> const time = Clock::now() - start;
    std::cout << static_cast<int>(count / time.count()) << " a second\n";
    js_PublishAsyncComplete(jetStream, nullptr);
    jsCtx_Destroy(jetStream);
    natsConnection_Destroy(connection);
}
