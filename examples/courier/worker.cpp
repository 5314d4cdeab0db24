// SPDX-License-Identifier: Apache-2.0
// Takes elements from a queue that it shares with other workers, and decodes each where it lies.
// Prints a line for each: run, element, wire format, bytes, CRC-32, how often it was delivered.

#include "Messages.h"
#include "Options.h"
#include "examples/program/Coding.h"
#include "examples/program/Run.h"
#include "examples/program/Text.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

using namespace courier::examples;
using namespace courier::hub::serialisation;

struct Options {
    Place place;
    std::string name;
    std::uint64_t readLimit = defaultReadLimit;
};

// The sender's parts are not there, or not any more.
struct PartsMissing : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Worker {
public:
    Worker(Options const& options, SerialisationCatalogue const& catalogue)
        : options_(options), catalogue_(catalogue), session_(options.place.servers),
          queue_(joinWorkers(session_, options.place)) {}

    void run(stop_token const& stop) {
        std::cerr << options_.name << ": ready\n";
        while (!stop.stop_requested()) {
            // One at a time: an element that waits behind another would wait for nothing where a
            // second worker is idle.
            for (auto& message : queue_.take(1)) {
                handle(std::move(message));
            }
        }
        session_.flush();
    }

private:
    static nats::Queue joinWorkers(nats::Session const& session, Place const& place) {
        prepare(session, place);
        return session.join(place.stream, workers);
    }

    void handle(nats::Message message) {
        natsMsg* const raw = message.get();
        std::optional<Envelope> envelope;
        try {
            envelope = Envelope::of(raw);
        } catch (std::runtime_error const& error) {
            std::cerr << options_.name << ": a message that is no element: " << error.what()
                      << '\n';
            natsMsg_Term(raw, nullptr); // nobody else can read it either
            return;
        }
        Result result{.run = envelope->run,
                      .element = envelope->element,
                      .worker = options_.name,
                      .delivery = deliveries(raw)};
        // The acknowledgement comes last, after the word of it too: until then, another worker gets
        // the element if anything happens to this one. The message lives as long as the source that
        // reads it.
        std::unique_ptr<std::streambuf> source;
        auto const start = std::chrono::steady_clock::now();
        try {
            source = open(*envelope, std::move(message), result);
            read(*envelope, *source, result);
        } catch (nats::Error const&) {
            throw;
        } catch (PartsMissing const& error) {
            std::cerr << options_.name << ": " << error.what() << '\n';
            natsMsg_NakWithDelay(raw, 1'000'000'000, nullptr);
            return;
        } catch (std::exception const& error) {
            result.error = error.what(); // it would fail anywhere: the sender must know
        }
        result.time = std::chrono::steady_clock::now() - start;
        std::cout << (result.error.empty() ? "decoded " : "failed ") << result.run << ' '
                  << result.element << ' ' << envelope->wireFormat << ' ' << result.size << ' '
                  << result.crc32 << ' ' << result.delivery << std::endl;
        session_.publish(result.toMessage(options_.place).get(), result.run + '.' + result.what());
        // One that gets lost costs a second delivery, nothing else.
        natsMsg_Ack(raw, nullptr);
    }

    // The bytes of the element, each where the client library put it.
    std::unique_ptr<std::streambuf> open(Envelope const& envelope, nats::Message message,
                                         Result& result) {
        auto const count = [&result](ByteBuffer buffer) {
            ByteBufferView const bytes(buffer.data(), buffer.size());
            result.size += bytes.size();
            result.crc32 = crc32(result.crc32, bytes);
            return buffer;
        };
        if (envelope.parts == 0) {
            return std::make_unique<ByteBufferIStreambuf>(
                std::make_unique<ByteBuffer>(count(adopt(std::move(message)))));
        }
        std::shared_ptr<natsMsg> const notice(std::move(message));
        return std::make_unique<PartsIStreambuf>(
            envelope.parts, [this, envelope, count, notice](std::size_t part) {
                natsMsg_InProgress(notice.get(), nullptr); // the server shall wait on
                Envelope expected = envelope;
                expected.part = part;
                auto const subject = options_.place.subject(envelope.run, expected.what());
                auto found = session_.find(options_.place.stream, subject);
                if (!found) {
                    throw PartsMissing("there is no " + subject);
                }
                if (Envelope::of(found.get()) != expected) {
                    throw std::runtime_error(subject + " is of another element");
                }
                return count(adopt(std::move(found)));
            });
    }

    void read(Envelope const& envelope, std::streambuf& source, Result const& result) const {
        if (!catalogue_.hasDeserialiserFor(envelope.wireFormat, envelope.typeID)) {
            auto const formats = catalogue_.getSupportedDeserialisationWireFormats(envelope.typeID);
            throw std::runtime_error("no module reads type " + hexadecimal(envelope.typeID) +
                                     " from \"" + envelope.wireFormat + "\"; there is " +
                                     (formats.empty() ? "none for it" : join(formats, ", ")));
        }
        auto const deserialise =
            catalogue_.getDeserialiserFor(envelope.wireFormat, envelope.typeID);
        auto const payload = decode(deserialise, source);
        if (result.size != envelope.size || result.crc32 != envelope.crc32) {
            throw std::runtime_error("the bytes are not those that were sent");
        }
        // Here a real worker would do its work with the payload.
    }

    static std::uint64_t deliveries(natsMsg* message) {
        jsMsgMetaData* made = nullptr;
        nats::require(natsMsg_GetMetaData(&made, message), "read where a message comes from");
        std::unique_ptr<jsMsgMetaData, nats::Destroy<jsMsgMetaData_Destroy>> const meta(made);
        return meta->NumDelivered;
    }

    Options const& options_;
    SerialisationCatalogue const& catalogue_;
    nats::Session session_;
    nats::Queue queue_;
};

std::string hostAndProcess() {
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    return std::string(host.data()) + ':' + std::to_string(::getpid());
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    options.name = hostAndProcess();
    CLI::App app("Decodes the elements that senders put into a stream, together with all other "
                 "workers of it, until Control-C.",
                 "worker");
    addOptions(app, options.place);
    app.add_option("-n,--name", options.name, "What the sender's table calls it")
        ->type_name("NAME")
        ->capture_default_str();
    addReadLimit(app, options.readLimit);
    return run(app, argc, argv, options.name, options.readLimit,
               [&](auto const& catalogue, stop_source const& stop) {
                   Worker(options, catalogue).run(stop.get_token());
                   return 0;
               });
}
