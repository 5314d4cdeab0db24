// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/parsing.md: messages of a header, which ends with an empty line, and a
// body of as many bytes as the header says.

#include <courier/hub/serialisation/IOStreams.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

using namespace courier::hub::serialisation;

namespace {

std::string_view text(ByteBufferView bytes) {
    return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

// Reads one message and returns its body, in place. The stream is then at the next message.
ByteBuffer readMessage(ByteBufferIStream& in) {
    std::size_t length = 0;
    for (std::string line; std::getline(in, line) && !line.empty();) {
        constexpr std::string_view name = "length: ";
        if (line.starts_with(name)) {
            char const* const end = line.data() + line.size();
            auto const result = std::from_chars(line.data() + name.size(), end, length);
            if (result.ec != std::errc() || result.ptr != end) {
                throw std::runtime_error("not a length: " + line);
            }
        }
    }
    if (!in || length > in.unread().size()) {
        throw std::runtime_error("the message ends too early");
    }
    return in.take(length);
}

// Receives once, and returns the messages that are complete: a byte that says how long a message
// is, and as many bytes. Leaves the beginning of the next one in `rest`.
std::vector<ByteBuffer> receive(std::istream& socket, ByteBuffer& rest) {
    constexpr std::size_t most = 65536;
    rest.resize(rest.size() + most); // moves the beginning to a block of its own
    socket.read(reinterpret_cast<char*>(rest.data() + rest.size() - most), most);
    rest.trimBack(most - static_cast<std::size_t>(socket.gcount()));

    std::vector<ByteBuffer> messages;
    auto const next = [&] { return 1 + std::to_integer<std::size_t>(rest.front()); };
    while (!rest.empty() && next() <= rest.size()) {
        messages.push_back(rest.splitFront(next()));
        messages.back().trimFront(1);
    }
    return messages;
}

// Writes a message whose length is known only once its body is written.
ByteBuffer writeMessage(std::string_view body) {
    constexpr std::size_t digits = 10;
    ByteBufferOStream out;
    out << "length: " << std::string(digits, '0') << "\n\n";
    std::size_t const start = out.size();
    out << body; // or a serialiser: serialise(out)
    std::size_t const length = out.size() - start;
    ByteBuffer message = out.release(); // throws if a part is missing

    std::array<char, digits + 10> number{};
    char* const end = std::to_chars(number.data(), number.data() + number.size(), length).ptr;
    auto const count = static_cast<std::size_t>(end - number.data());
    if (count > digits) {
        throw std::length_error("the message is too long");
    }
    std::copy(number.data(), end, reinterpret_cast<char*>(&message[start - 2 - count]));
    return message;
}

} // namespace

int main() {
    ByteBuffer bytes = writeMessage("");
    bytes.append(writeMessage("two words"));
    std::byte const* const end = bytes.data() + bytes.size();

    ByteBufferIStream in(std::move(bytes));
    std::cout << '"' << text(readMessage(in)) << "\"\n";
    ByteBuffer const second = readMessage(in);
    bool const inPlace = second.data() + second.size() == end;
    std::cout << '"' << text(second) << (inPlace ? "\", in place\n" : "\", copied\n");

    try {
        ByteBufferIStream cut(ByteBufferView(std::string_view("length: 5\n\nabc")));
        static_cast<void>(readMessage(cut));
    } catch (std::runtime_error const& error) {
        std::cout << error.what() << '\n';
    }

    std::istringstream socket("\x5hello\x3you\x9the be");
    ByteBuffer rest;
    for (ByteBuffer const& message : receive(socket, rest)) {
        std::cout << '"' << text(message) << "\"\n";
    }
    std::cout << rest.size() << " bytes of the next message\n";
}
