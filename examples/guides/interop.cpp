// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/interop.md.

#include <courier/hub/serialisation/IOStreams.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <iostream>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

using namespace courier::hub::serialisation;
using bedrock::concurrent::threadpool::stop_source;

namespace {

std::string_view text(ByteBufferView bytes) {
    return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

// A C library that keeps a block, and frees it by a function that it gets with the block.
extern "C" {
using free_function = void (*)(void* data, void* hint);
struct c_message {
    void* data;
    std::size_t size;
    free_function free;
    void* hint;
};
void c_message_close(c_message* message) { message->free(message->data, message->hint); }
}

// The library gets the bytes without a copy. It frees the buffer when it is done with them.
c_message giveAway(ByteBuffer bytes) {
    auto owner = std::make_unique<ByteBuffer>(std::move(bytes));
    std::byte* const data = owner->data();
    std::size_t const size = owner->size();
    auto const free = [](void*, void* hint) { delete static_cast<ByteBuffer*>(hint); };
    return {data, size, free, owner.release()};
}

// Writes all pieces without joining them: up to 1024, Linux's IOV_MAX, by one system call.
void writeAll(int file, std::vector<ByteBufferView> pieces) {
    std::vector<iovec> vectors;
    for (std::size_t first = 0; first < pieces.size();) {
        vectors.clear();
        for (std::size_t i = first; i < pieces.size() && vectors.size() < 1024; ++i) {
            vectors.push_back({pieces[i].data(), pieces[i].size()});
        }
        ssize_t const written = ::writev(file, vectors.data(), static_cast<int>(vectors.size()));
        if (written < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "writev");
        }
        auto left = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        for (; first < pieces.size() && left >= pieces[first].size(); ++first) {
            left -= pieces[first].size();
        }
        if (left > 0) {
            pieces[first].trimFront(left); // a piece that was written in part
        }
    }
}

// Receives into a buffer that Boost.Asio fills, and reads it in place.
std::string exchangeByAsio(ByteBuffer const& sent) {
    namespace asio = boost::asio;
    asio::io_context context;
    asio::local::stream_protocol::socket here(context);
    asio::local::stream_protocol::socket there(context);
    asio::local::connect_pair(here, there);
    asio::write(here, asio::buffer(sent.data(), sent.size()));

    ByteBuffer received(sent.size());
    asio::read(there, asio::buffer(received.data(), received.size()));
    ByteBufferIStream in(std::move(received));
    std::string word;
    in >> word;
    return word;
}

// A request to stop of the standard library's kind stops the writes, too.
void writeUntil(std::stop_token const& token, std::ostream& target) {
    stop_source stop;
    std::stop_callback const forward(token, [&stop] { stop.request_stop(); });
    StoppableOStream out(stop.get_token(), target);
    out << "not written";
}

} // namespace

int main() {
    c_message message = giveAway(adopt(std::string("a C library's bytes")));
    std::cout << text({static_cast<std::byte*>(message.data), message.size}) << '\n';
    c_message_close(&message);

    ByteBuffer const head = adopt(std::string("head, "));
    ByteBuffer const body = adopt(std::string("body\n"));
    std::cout.flush();
    writeAll(STDOUT_FILENO, {ByteBufferView(head), ByteBufferView(body)});

    std::cout << exchangeByAsio(body) << '\n';

    std::stop_source stop;
    stop.request_stop();
    ByteBufferOStream out;
    try {
        writeUntil(stop.get_token(), out);
    } catch (std::system_error const& error) {
        std::cout << error.code().message() << '\n';
    }
}
