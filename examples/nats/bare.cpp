// SPDX-License-Identifier: Apache-2.0
// The baseline for the sender and its workers: moves messages of 1 KB through a stream of the same
// kind with hardly more than the client library. Prints messages a second.

#include "examples/nats/Session.h"

#include <iostream>

using namespace courier::examples::nats;

int main(int argc, char** argv) {
    Servers servers;
    servers.stream = "bare";
    int count = 5000;
    CLI::App app("Measures what the client library can do.", "bare");
    servers.addTo(app);
    app.add_option("--copies", count, "Messages")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    Session session(servers, "bare", [](auto const&) {});
    session.join("takers", 10s);
    auto const start = Clock::now();
    std::jthread const publisher([&] {
        std::vector<std::byte> const data(1000);
        courier::hub::serialisation::ByteBufferView const bytes(data);
        for (int i = 0; i < count; ++i) {
            std::string const subject = "bare.run." + std::to_string(i);
            natsMsg* message = makeElement(subject, {1, 1, "raw"}, bytes).release();
            js_PublishMsgAsync(session.jetStream(), &message, nullptr);
        }
    });
    for (int taken = 0; taken < count;) {
        for (auto const& message : session.fetch(256, 100ms)) {
            natsConnection_PublishString(session.connection(), natsMsg_GetReply(message.get()),
                                         "+ACK");
            ++taken;
        }
    }
    std::chrono::duration<double> const time = Clock::now() - start;
    std::cout << static_cast<int>(count / time.count()) << " a second\n";
}
