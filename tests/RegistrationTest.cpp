// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <courier/hub/serialisation/Registration.h>

#include <memory>
#include <system_error>
#include <tuple>

using namespace tests;

namespace {

struct Price {
    int cents;
    void write(std::ostream& out) const { out << cents; }
};
struct Order {
    int number;
};
using Pair = std::tuple<Price, Order>;

auto const writePrice = [](Price const& price, std::ostream& out) { out << price.cents; };
auto const writeUntilStopped = [](Price const& price, std::ostream& out, stop_token const& stop) {
    out << price.cents;
    throwIfStopped(stop);
    out << '.';
};
auto const writePair = [](Price const& price, Order const& order, std::ostream& out) {
    out << price.cents << '#' << order.number;
};
Price readPrice(std::istream& in) { return {in.get()}; }

// What may be registered, and what is refused at registration.
template <class... Elements> constexpr bool isWriter(auto write) {
    return WriterOf<decltype(write), Elements...>;
}
template <class... Elements> constexpr bool isReader(auto read) {
    return ReaderOf<decltype(read), Elements...>;
}
static_assert(isWriter<Price>(writePrice) && isWriter<Price>(&Price::write));
static_assert(isWriter<Price, Order>(writePair) && isWriter<Price>([](auto const&...) {}));
static_assert(!isWriter<Price>(writePair) && !isWriter<Order, Price>(writePair));
static_assert(!isWriter<Price>([](Price&, std::ostream&) {}));
static_assert(!isWriter<Price>([n = 0](Price const&, std::ostream& out) mutable { out << ++n; }));
static_assert(!isWriter<Price>([](Price const&, std::ostream&) { return false; }));
static_assert(isReader<Price>(readPrice) && !isReader<Order>(readPrice));
static_assert(!isReader<Price>([](std::istream&) -> Price& { std::abort(); }));
static_assert(!isReader<Price, Order>(readPrice));
static_assert(ElementType<Price> && !ElementType<Price const> && !ElementType<Price&>);

GenericPayload payloadWith(auto... elements) {
    GenericPayload payload;
    (payload.add(std::make_shared<decltype(elements)>(elements)), ...);
    return payload;
}
GenericPayloadView viewWith(auto element) {
    return {GenericPayloadWrapperPtr::make(payloadWith(element)), 0};
}

struct RegistrationTest : testing::Test {
    std::string writtenAs(std::string const& format, auto... elements) const {
        return written(catalogue.getSerialiserFor(format, payloadWith(elements...)));
    }
    GenericPayload readAs(std::string const& format, std::uint64_t id) const {
        std::istringstream in("A");
        return catalogue.getDeserialiserFor(format, id)(in);
    }
    Catalogue catalogue;
};

TEST_F(RegistrationTest, ServesOneElementByEveryLookUp) {
    addFormat<Price>(catalogue, "text", writePrice, readPrice);
    addWriter<Price>(catalogue, "member", &Price::write);
    EXPECT_EQ(writtenAs("text", Price{7}), "7");
    EXPECT_EQ(writtenAs("member", Price{8}), "8");
    EXPECT_EQ(written(catalogue.getSerialiserFor("text", viewWith(Price{7}))), "7");
    auto const stoppable = catalogue.getSerialiserFor("*", viewWith(Price{7}), stop_source());
    EXPECT_EQ(written(stoppable), "7");
    EXPECT_EQ(catalogue.getSerialiserFor("text", IDs{getTypeID<Price>()}).getTypeID(),
              getTypeID<Price>());
    EXPECT_EQ(readAs("text", getTypeID<Price>()).get<Price>(0).cents, 'A');
}

TEST_F(RegistrationTest, FansOutInFormatsWrittenInBraces) {
    addWriter<Price>(catalogue, "text", writePrice);
    addWriter<Price>(catalogue, "until stopped", writeUntilStopped);
    auto const payload = [] { return payloadWith(Price{1}, Price{2}); };
    auto const made = createSerialisersFor(payload(), catalogue, {"text", "until stopped"}).first;
    EXPECT_EQ(written(made.at(0)) + ' ' + written(made.at(1)), "1 2.");
    stop_source stop;
    auto const all = createSerialisersFor(payload(), catalogue, {"text", "text"}, stop).first;
    stop.request_stop();
    EXPECT_THROW(written(all.at(1)), std::system_error);
}

TEST_F(RegistrationTest, StopsBeforeItWritesAndWithinAWriteThatAsks) {
    struct StoppingSink : std::stringbuf {
        std::streamsize xsputn(char const* s, std::streamsize n) override {
            stop.request_stop();
            return std::stringbuf::xsputn(s, n);
        }
        stop_source stop;
    } sink;
    std::ostream out(&sink);
    addWriter<Price>(catalogue, "text", writePrice);
    addWriter<Price>(catalogue, "until stopped", writeUntilStopped);
    EXPECT_EQ(writtenAs("until stopped", Price{7}), "7.");
    for (char const* const format : {"until stopped", "text"}) { // the second one is stopped before
        try {
            catalogue.getSerialiserFor(format, viewWith(Price{7}), sink.stop)(out);
            FAIL() << "not stopped";
        } catch (std::system_error const& error) {
            EXPECT_EQ(error.code(), std::errc::operation_canceled);
        }
        EXPECT_EQ(sink.str(), "7");
    }
    auto const write = catalogue.getSerialiserFor("text", viewWith(Price{7}));
    EXPECT_THROW(write(sink.stop.get_token(), out), std::system_error);
}

TEST_F(RegistrationTest, ServesSeveralElementsAndDropsNone) {
    addWriter<Price>(catalogue, "text", writePrice);
    EXPECT_ERROR(std::invalid_argument,
                 "A serialiser for payloads of 1 element cannot write one of 2",
                 writtenAs("text", Price{7}, Order{3}));
    addFormat<Price, Order>(catalogue, "text", writePair, [](std::istream& in) {
        return std::make_unique<Pair>(readPrice(in), Order{3});
    });
    EXPECT_EQ(writtenAs("text", Price{7}, Order{3}), "7#3");
    EXPECT_EQ(writtenAs("text", Pair{{7}, {3}}), "7#3");
    EXPECT_EQ(written(catalogue.getSerialiserFor("text", viewWith(Pair{{7}, {3}}))), "7#3");
    EXPECT_ERROR(std::invalid_argument,
                 "A serialiser for payloads of 2 elements cannot write one of 3",
                 writtenAs("text", Pair{{7}, {3}}, Order{3}, Order{3}));
    GenericPayload const read = readAs("text", getTypeID<Pair>());
    EXPECT_EQ(read.elementCount, 2U);
    EXPECT_EQ(read.get<Price>(0).cents, 'A');
    EXPECT_EQ(read.get<Order>(1).number, 3);
}

TEST_F(RegistrationTest, TakesElementsByValueOrByOwningPointer) {
    addReader<Price>(catalogue, "value", readPrice);
    addReader<Price>(catalogue, "unique",
                     [](std::istream& in) { return std::make_unique<Price>(readPrice(in)); });
    addReader<Price>(catalogue, "shared",
                     [](std::istream& in) { return std::make_shared<Price>(readPrice(in)); });
    addReader<Price>(catalogue, "null", [](std::istream&) { return std::unique_ptr<Price>(); });
    addReader<Price, Order>(catalogue, "value",
                            [](std::istream& in) { return Pair(readPrice(in), Order{1}); });
    for (auto const* const format : {"value", "unique", "shared"}) {
        EXPECT_EQ(readAs(format, getTypeID<Price>()).get<Price>(0).cents, 'A') << format;
    }
    EXPECT_ERROR(std::logic_error, "The reader returned a null pointer",
                 readAs("null", getTypeID<Price>()));
    EXPECT_EQ(readAs("value", getTypeID<Pair>()).get<Order>(1).number, 1);
}

TEST_F(RegistrationTest, KeepsTheHandleUntilTheCodeThatNeedsItIsDestroyed) {
    std::string log;
    auto const logged = [&log](char name) {
        return std::shared_ptr<void>(&log, [&log, name](void*) { log += name; });
    };
    auto own = std::make_unique<Catalogue>();
    addFormat<Price>(
        *own, "text", [code = logged('w')](Price const&, std::ostream&) {},
        [code = logged('r')](std::istream&) { return Price{1}; }, logged('h'));
    auto serialiser =
        std::make_unique<GenericSerialiser>(own->getSerialiserFor("text", viewWith(Price{1})));
    auto reader =
        std::make_unique<GenericDeserialiser>(own->getDeserialiserFor("text", getTypeID<Price>()));
    EXPECT_EQ(serialiser->getHandle(), reader->getHandle());
    own.reset();
    reader.reset();
    EXPECT_EQ(log, "r");
    serialiser.reset();
    EXPECT_EQ(log, "rwh");
}

TEST_F(RegistrationTest, RefusesNamesThatNobodyCouldAskFor) {
    for (auto const* const name : {"", "*"}) {
        EXPECT_THROW(addWriter<Price>(catalogue, name, writePrice), std::invalid_argument) << name;
        EXPECT_THROW(addReader<Price>(catalogue, name, readPrice), std::invalid_argument) << name;
    }
    EXPECT_EQ(catalogue.getSupportedWireFormats(getTypeID<Price>()), Formats());
    addWriter<Price>(catalogue, "*.csv", writePrice);
}

TEST_F(RegistrationTest, RegistersNoReaderWithoutItsWriter) {
    constexpr auto id = getTypeID<Price>();
    bool failed = true;
    for (std::size_t n = 0; failed; ++n) {
        Catalogue fresh;
        failAfter(n);
        try {
            addFormat<Price>(fresh, "text", writePrice, readPrice);
        } catch (std::bad_alloc const&) {
        }
        failed = stopFailing();
        EXPECT_GE(fresh.getSupportedWireFormats(id).size(), fresh.hasDeserialiserFor("text", id));
    }
}

} // namespace
