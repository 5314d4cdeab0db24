// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/adopting.md.

#include <courier/hub/serialisation/Buffers.h>

#include <cstddef>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

using namespace courier::hub::serialisation;

namespace {

// What a messaging library looks like to its users.
struct Message {
    std::string bytes;
};
Message* receiveMessage() { return new Message{"v1: 21.5 degrees, measured at noon"}; }
void destroyMessage(Message* message) {
    delete message;
    std::cout << "the message is destroyed\n";
}

std::string_view text(ByteBufferView view) {
    return {reinterpret_cast<char const*>(view.data()), view.size()};
}

ByteBuffer receive() {
    std::unique_ptr<Message, void (*)(Message*)> message(receiveMessage(), destroyMessage);
    ByteBufferView const bytes(message->bytes);
    return adopt(bytes, std::move(message));
}

} // namespace

int main() {
    ByteBuffer buffer = receive();
    std::byte const* const body = buffer.data() + 4;

    buffer.trimFront(4); // the header is read: no byte moves
    ByteBufferView const degrees = buffer.first(4);
    std::cout << text(degrees) << (degrees.data() == body ? ", in place\n" : ", copied\n");

    ByteBuffer kept = std::move(buffer); // the block moves with its owner
    ByteBuffer copy = kept.clone();      // bytes of its own
    kept.clear();                        // releases the message: `degrees` is now invalid

    copy.resize(12);
    std::cout << text(ByteBufferView(copy)) << '\n';

    ByteBuffer const fromString = adopt(std::string("bytes of a string"));
    std::cout << text(fromString.last(6)) << '\n';
}
