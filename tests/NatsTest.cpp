// SPDX-License-Identifier: Apache-2.0
// The messages of the NATS programs, without a server.

#include "Support.h"
#include "examples/nats/Messages.h"

using namespace courier::examples;
using namespace courier::hub::serialisation;
using tests::discard;

namespace {

nats::Message message(std::string const& bytes) {
    return Envelope{.run = "r", .wireFormat = "raw"}.toMessage({}, ByteBufferView(bytes));
}

char const* unreadBytes(ByteBufferIStreambuf const& source) {
    return reinterpret_cast<char const*>(source.unread().data());
}

// The library frees messages on a thread of its own, which it starts with the first connection.
struct NatsTest : testing::Test {
    static void SetUpTestSuite() { ASSERT_EQ(nats_Open(-1), NATS_OK); }
    static void TearDownTestSuite() { nats_CloseAndWait(0); }
};

TEST_F(NatsTest, MessagesAreReadWhereTheyLie) {
    for (std::size_t const size : {0U, 1U, 1000U, 1U << 20}) {
        auto received = message(std::string(size, 'x'));
        char const* const bytes = natsMsg_GetData(received.get());
        ByteBuffer buffer = adopt(std::move(received)); // frees the message, or asan reports a leak
        EXPECT_EQ(buffer.size(), size);
        EXPECT_TRUE(size == 0 || static_cast<void*>(buffer.data()) == bytes);
    }
    EXPECT_EQ(adopt(nullptr).size(), 0);
}

TEST_F(NatsTest, PartsAreReadOneAfterTheOtherWhereTheyLie) {
    std::vector<char const*> bytes;
    std::vector<std::string> const parts{"abc", "", "d", "efgh"};
    auto const get = [&](std::size_t part) {
        auto received = message(parts.at(part - 1));
        bytes.push_back(natsMsg_GetData(received.get()));
        return adopt(std::move(received));
    };
    PartsIStreambuf source(parts.size(), get);
    EXPECT_TRUE(bytes.empty()); // nothing is fetched before it is read
    EXPECT_EQ(source.sgetc(), 'a');
    EXPECT_EQ(unreadBytes(source), bytes.at(0));
    std::string text(6, '\0');
    EXPECT_EQ(source.sgetn(text.data(), 6), 6);
    EXPECT_EQ(text, "abcdef");
    EXPECT_EQ(unreadBytes(source), bytes.at(3) + 2);
    EXPECT_EQ(source.sgetn(text.data(), 6), 2);

    PartsIStreambuf broken(2, [](std::size_t) -> ByteBuffer { throw std::runtime_error("lost"); });
    std::istream in(&broken);
    in.exceptions(std::ios::badbit);
    EXPECT_THROW(in.get(), std::runtime_error);
}

TEST_F(NatsTest, HeadersComeThroughOrAreRefused) {
    Envelope const sent{"r", 1, "a format", ~0ULL, ~0ULL, ~0U, 2, 3};
    auto received = sent.toMessage({}, {});
    EXPECT_EQ(Envelope::of(received.get()), sent);
    EXPECT_STREQ(natsMsg_GetSubject(received.get()), "elements.r.part.1.2");
    for (char const* const wrong : {"", "x", "1x", "-1", "99999999999999999999"}) {
        natsMsgHeader_Set(received.get(), "Courier-Type", wrong);
        EXPECT_THROW(discard(Envelope::of(received.get())), std::runtime_error) << wrong;
    }
    natsMsgHeader_Delete(received.get(), "Courier-Type");
    EXPECT_THROW(discard(Envelope::of(received.get())), std::runtime_error);
    Envelope const wrong{.run = "r", .wireFormat = "a\r\nb"};
    EXPECT_THROW(discard(wrong.toMessage({}, {})), std::invalid_argument);
    EXPECT_THROW(discard(room(1000, sent)), std::runtime_error);
    EXPECT_LT(room(1 << 20, sent), 1 << 20);
}

} // namespace
