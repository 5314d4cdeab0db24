// SPDX-License-Identifier: Apache-2.0
// tests/gdb/check.py inspects this program through gdb when it calls look().
#include <courier/hub/serialisation/FanOut.h>
#include <courier/hub/serialisation/Streams.h>

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;

struct Price {
    int cents;
};

namespace {

void writePrice(stop_token, std::ostream&) {}
GenericSerialiser makeWriter(GenericPayloadView&& view) {
    return GenericSerialiser([view = std::move(view)](stop_token, std::ostream&) {});
}
Price readPrice(std::istream&) { return {7}; }

[[gnu::noinline]] void look(void const* garbage) { asm volatile("" : : "r"(garbage) : "memory"); }

} // namespace

int main() {
    std::string_view const text = "hello, \"world\"\n and more";
    auto* const bytes = reinterpret_cast<std::byte*>(const_cast<char*>(text.data()));
    ByteBufferView view(bytes, text.size());
    ByteBufferView const nullView(static_cast<std::byte*>(nullptr), 3);
    ByteBuffer const vectorForm(view);
    ByteBuffer const externalForm(ByteBuffer::Block(bytes, [](void*) {}), 5);
    ByteBuffer const handedIn(std::vector<std::byte>(bytes, bytes + 1));
    ByteBuffer const empty;
    [[maybe_unused]] ByteBufferIterator const inVector = vectorForm.begin();
    [[maybe_unused]] ByteBufferIterator const inView = view.begin() + 1;
    ByteStream const stream(std::make_unique<ByteBufferByteStreamImpl>(ByteBuffer(view)));
    ByteStreamIterator const streamed = stream.begin();
    ByteStreamCharIterator const character(streamed);
    [[maybe_unused]] ByteStreamIterator const streamEnd;

    GenericPayload payload;
    payload.add(std::make_shared<Price>(Price{1999}));
    auto const own = [](int* number) { return std::shared_ptr<int>(number); };
    payload.add(own(new int(42)));
    payload.add(std::shared_ptr<Price>());
    GenericPayload moved;
    moved.elementCount = 2;

    stop_source source;
    stop_token const token = source.get_token();
    source.request_stop();
    stop_source const noSource(bedrock::concurrent::threadpool::nostopstate);
    GenericSerialiser const serialiser(writePrice, source, "a text");
    GenericDeserialiser const deserialiser{std::function(readPrice)};
    DeferredSerialiser const deferred(nullptr);

    Catalogue catalogue;
    constexpr auto id = courier::hub::core::getTypeID<Price>();
    catalogue.add(Serialiser("text", id, {id, id}, makeWriter, nullptr, nullptr));
    catalogue.add(Serialiser("json", id, {id}, nullptr, nullptr, nullptr));
    catalogue.add(Deserialiser("text", id, deserialiser));
    [[maybe_unused]] auto const& record = catalogue.getSerialiserFor("json", id);

    GenericPayload sent;
    sent.add(std::make_shared<Price>(Price{1}));
    auto made = createSerialisersFor(std::move(sent), catalogue, "text");
    std::vector<GenericSerialiser> const serialisers = std::move(made.first);
    std::shared_ptr<Sentinel> const sentinel = std::move(made.second);
    Sentinel released;
    released.notify();

    alignas(std::max_align_t) unsigned char garbage[1024];
    for (int const fill : {0x00, 0x01, 0x7F, 0xA5, 0xFF}) {
        for (std::size_t i = 0; i < sizeof(garbage); ++i) {
            garbage[i] = static_cast<unsigned char>(fill - static_cast<int>(i / 8));
        }
        look(garbage);
    }
}
