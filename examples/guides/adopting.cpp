// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/adopting.md.

#include <courier/hub/serialisation/Buffers.h>

#include <cstddef>
#include <iostream>
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
    Message* const message = receiveMessage();
    return ByteBuffer({message->bytes.data(), [message](void*) { destroyMessage(message); }},
                      message->bytes.size());
}

} // namespace

int main() {
    ByteBuffer buffer = receive();
    std::byte const* const body = buffer.data() + 4;

    buffer.trimFront(4); // the header is read: no byte moves
    ByteBufferView const degrees = buffer.makeView(0, 4);
    std::cout << text(degrees) << (degrees.data() == body ? ", in place\n" : ", copied\n");

    ByteBuffer kept = std::move(buffer); // the block and its deleter move on
    ByteBuffer copy = kept.clone();      // bytes of its own
    kept.clear();                        // here the message goes, and `degrees` with it

    copy.resize(12);
    std::cout << text(copy.makeView(0, 0)) << '\n';
}
