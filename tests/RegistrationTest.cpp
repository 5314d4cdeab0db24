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
using Order = std::unique_ptr<int>; // is moved only
using Pair = std::tuple<Price, Order>;
constexpr std::uint64_t priceID = getTypeID<Price>();

auto const writePrice = [](Price const& price, std::ostream& out) { out << price.cents; };
auto const writePair = [](Price const& price, Order const& order, std::ostream& out) {
    out << price.cents << '#' << *order;
};
Price readPrice(std::istream& in) { return {in.get()}; }
Pair readPair(std::istream& in) { return {readPrice(in), std::make_unique<int>(3)}; }

GenericPayload payloadWith(auto... elements) {
    GenericPayload payload;
    (payload.add(std::make_shared<decltype(elements)>(std::move(elements))), ...);
    return payload;
}
GenericPayloadView viewWith(auto element) {
    return {GenericPayloadWrapperPtr::make(payloadWith(std::move(element))), 0};
}

struct Registration : testing::Test {
    std::string writtenAs(std::string const& format, auto... elements) const {
        return written(catalogue.getSerialiserFor(format, payloadWith(std::move(elements)...)));
    }
    // The price and, if there is one, the order.
    std::string readAs(std::string const& format, std::uint64_t id) const {
        std::istringstream in("A");
        GenericPayload const read = catalogue.getDeserialiserFor(format, id)(in);
        return std::to_string(read.get<Price>(0).cents) +
               (read.elementCount == 1 ? "" : '#' + std::to_string(*read.get<Order>(1)));
    }
    Catalogue catalogue;
};

TEST_F(Registration, WritesAnElementByEveryLookUp) {
    addWriter<Price>(catalogue, "text", writePrice);
    addWriter<Price>(catalogue, "member", &Price::write);
    EXPECT_EQ(writtenAs("text", Price{7}) + writtenAs("member", Price{8}), "78");
    EXPECT_EQ(written(catalogue.getSerialiserFor("text", viewWith(Price{7}))), "7");
    EXPECT_EQ(written(catalogue.getSerialiserFor("*", viewWith(Price{7}), stop_source())), "7");
    EXPECT_EQ(catalogue.getSerialiserFor("text", IDs{priceID}).getTypeID(), priceID);
}

TEST_F(Registration, StopsBeforeItWritesAndWithinAWriteThatAsks) {
    stop_source stop;
    auto const stopAndWrite = [&](Price const& price, std::ostream& out, stop_token const& token) {
        out << price.cents;
        stop.request_stop();
        throwIfStopped(token);
    };
    addWriter<Price>(catalogue, "text", writePrice);
    addWriter<Price>(catalogue, "stopping", stopAndWrite);
    auto const canceled = std::make_error_code(std::errc::operation_canceled);
    std::ostringstream out;
    for (char const* const format : {"stopping", "stopping", "text"}) { // stopped by now
        EXPECT_ERROR(std::system_error, std::system_error(canceled).what(),
                     catalogue.getSerialiserFor(format, viewWith(Price{7}), stop)(out));
        EXPECT_EQ(out.str(), "7") << format;
    }
    auto const write = catalogue.getSerialiserFor("text", viewWith(Price{7}));
    EXPECT_THROW(write(stop.get_token(), out), std::system_error);
    EXPECT_EQ(writtenAs("stopping", Price{7}), "7"); // without a token that could be stopped
}

TEST_F(Registration, WritesSeveralElementsAndDropsNone) {
    addWriter<Price>(catalogue, "text", writePrice);
    for (std::size_t const count : {0U, 2U}) {
        GenericPayload payload = payloadWith(Price{7}, std::make_unique<int>(3));
        payload.elementCount = count;
        EXPECT_ERROR(std::invalid_argument,
                     "A serialiser for payloads of 1 element cannot write one of " +
                         std::to_string(count),
                     written(catalogue.getSerialiserFor("text", std::move(payload))));
    }
    addWriter<Price, Order>(catalogue, "text", writePair);
    EXPECT_EQ(writtenAs("text", Price{7}, std::make_unique<int>(3)), "7#3");
    EXPECT_EQ(writtenAs("text", Pair{Price{7}, std::make_unique<int>(3)}), "7#3");
    EXPECT_EQ(written(catalogue.getSerialiserFor(
                  "text", viewWith(Pair{Price{7}, std::make_unique<int>(3)}))),
              "7#3");
    EXPECT_ERROR(std::invalid_argument,
                 "A serialiser for payloads of 2 elements cannot write one of 3",
                 writtenAs("text", Pair{Price{7}, std::make_unique<int>(3)}, Price{3}, Price{3}));
}

TEST_F(Registration, ReadsByValueOrByOwningPointer) {
    auto const add = [&]<class... Elements>(auto read, std::string const& expected) {
        using Result = decltype(read(std::cin));
        auto const unique = [=](std::istream& in) { return std::make_unique<Result>(read(in)); };
        auto const shared = [=](std::istream& in) { return std::make_shared<Result>(read(in)); };
        addReader<Elements...>(catalogue, "value", read);
        addReader<Elements...>(catalogue, "unique", unique);
        addReader<Elements...>(catalogue, "shared", shared);
        addReader<Elements...>(catalogue, "null",
                               [](std::istream&) { return std::unique_ptr<Result>(); });
        for (auto const* const format : {"value", "unique", "shared"}) {
            EXPECT_EQ(readAs(format, getTypeID<Result>()), expected) << format;
        }
        EXPECT_ERROR(std::logic_error, "The reader returned a null pointer",
                     readAs("null", getTypeID<Result>()));
    };
    add.operator()<Price>(readPrice, "65");
    add.operator()<Price, Order>(readPair, "65#3");
}

TEST_F(Registration, KeepsTheHandleUntilTheCodeThatNeedsItIsDestroyed) {
    std::string log;
    auto const logged = [&log](char name) {
        return std::shared_ptr<void>(&log, [&log, name](void*) { log += name; });
    };
    auto const writer = [&] { return [code = logged('w')](Price const&, std::ostream&) {}; };
    auto const reader = [&] { return [code = logged('r')](std::istream&) { return Price{1}; }; };
    auto own = std::make_unique<Catalogue>();
    addWriter<Price>(*own, "text", writer(), logged('h'));
    own = std::make_unique<Catalogue>();
    EXPECT_EQ(log, "wh");
    addReader<Price>(*own, "text", reader(), logged('h'));
    own = std::make_unique<Catalogue>();
    EXPECT_EQ(log, "whrh");
    addFormat<Price>(*own, "text", writer(), reader(), logged('h'));
    log.clear();
    auto serialiser =
        std::make_unique<GenericSerialiser>(own->getSerialiserFor("text", viewWith(Price{1})));
    auto deserialiser =
        std::make_unique<GenericDeserialiser>(own->getDeserialiserFor("text", priceID));
    std::shared_ptr<void> handle = deserialiser->getHandle();
    EXPECT_EQ(serialiser->getHandle(), handle);
    own.reset();
    deserialiser.reset();
    EXPECT_EQ(log, "r");
    serialiser.reset();
    EXPECT_EQ(log, "rw");
    handle.reset();
    EXPECT_EQ(log, "rwh");
}

TEST_F(Registration, KeepsTheWriterIfMemoryForTheReaderIsExhausted) {
    std::size_t halves = 0;
    bool failed = true;
    for (std::size_t n = 0; failed; ++n) {
        Catalogue own;
        failAfter(n);
        try {
            addFormat<Price>(own, "text", writePrice, readPrice);
        } catch (std::bad_alloc const&) {
        }
        failed = stopFailing();
        bool const isWritten = !own.getSupportedWireFormats(priceID).empty();
        EXPECT_GE(isWritten, own.hasDeserialiserFor("text", priceID)) << n;
        halves += isWritten && failed ? 1 : 0;
    }
    EXPECT_GT(halves, 0U);
}

TEST_F(Registration, RefusesNamesThatNobodyCouldAskFor) {
    for (auto const* const name : {"", "*"}) {
        EXPECT_THROW(addWriter<Price>(catalogue, name, writePrice), std::invalid_argument) << name;
        EXPECT_THROW(addReader<Price>(catalogue, name, readPrice), std::invalid_argument) << name;
    }
    EXPECT_EQ(catalogue.getSupportedWireFormats(priceID), Formats());
    addWriter<Price>(catalogue, "*.csv", writePrice);
}

} // namespace
