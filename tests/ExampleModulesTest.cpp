// SPDX-License-Identifier: Apache-2.0
// The modules of the examples on hostile bytes.

#include "Support.h"
#include "examples/program/Element.h"
#include "examples/program/Run.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <random>

using namespace courier::examples;
using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload, courier::hub::core::getTypeID;
using tests::written;

namespace {

constexpr std::size_t mebibyte = 1 << 20;

std::string noise(std::size_t size, unsigned seed = 0) { // does not compress
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), std::mt19937(seed));
    return bytes;
}

GenericPayload sample(std::uint64_t typeID, std::string const& bytes) {
    GenericPayload payload;
    if (typeID == getTypeID<Document>()) {
        nlohmann::json const list(bytes.size() / 32, {"sixteen bytes...", 1.5, nullptr});
        payload.emplace<Document>(Document{{{"list", list}}});
    } else if (typeID == getTypeID<Listing>()) {
        payload.emplace<Listing>().add_files()->set_name(bytes);
    } else if (typeID == getTypeID<Histogram>()) {
        payload.emplace<Histogram>(Histogram{bytes, {1, 2, 3}});
    } else {
        payload.emplace<Blob>(ByteBuffer(ByteBufferView(bytes)));
    }
    return payload;
}

struct ExampleModules : testing::Test {
    ExampleModules() {
        setReadLimit(catalogue, mebibyte);
        for (Module const& module : modules) {
            module.registerIn(catalogue);
        }
        for (NamedType const& type : elementTypes) {
            for (auto const& format : catalogue.getSupportedWireFormats(type.id)) {
                typeOf[format] = type.id;
            }
        }
    }
    std::string encoded(std::string const& format, std::string const& bytes) {
        return written(catalogue.getSerialiserFor(format, sample(typeOf.at(format), bytes)));
    }
    // Refused with a text that says why. Any other exception, such as std::bad_alloc, fails the
    // test.
    bool isRefused(std::string const& format, std::string const& bytes) {
        auto const deserialise = catalogue.getDeserialiserFor(format, typeOf.at(format));
        std::istringstream in(bytes);
        try {
            return deserialise(in).elementCount != 1;
        } catch (std::runtime_error const& error) {
            return std::strlen(error.what()) > 9;
        } catch (std::length_error const& error) {
            return std::strstr(error.what(), "read limit of 1048576 bytes") != nullptr;
        }
    }
    std::vector<Module> const modules = loadModules(MODULE_DIR); // unloaded last
    Catalogue catalogue;
    std::map<std::string, std::uint64_t> typeOf;
};

TEST_F(ExampleModules, RefuseCutAndDamagedBytes) {
    for (auto const& [format, typeID] : typeOf) {
        SCOPED_TRACE(format);
        bool const hasEnd = format != "raw";
        bool const hasChecksum = format == "deflate" || format == "zstd";
        auto const good = encoded(format, noise(300));
        EXPECT_FALSE(isRefused(format, good));
        EXPECT_EQ(isRefused(format, good + 'x'), hasEnd);
        for (std::size_t i = 0; i < good.size(); ++i) {
            bool const isWhole = i == 0 && format == "protobuf"; // an empty message
            EXPECT_EQ(isRefused(format, good.substr(0, i)), hasEnd && !isWhole) << i;
            for (unsigned const bits : {0xFFU, 0x01U}) {
                auto damaged = good;
                damaged[i] = static_cast<char>(static_cast<unsigned char>(damaged[i]) ^ bits);
                EXPECT_GE(isRefused(format, damaged), hasChecksum) << i;
            }
        }
    }
}

TEST_F(ExampleModules, TakeBoundedMemoryForHostileBytes) {
    rlimit unbounded{};
    ::getrlimit(RLIMIT_AS, &unbounded);
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    auto const present = pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    rlimit const bound{present + 32 * mebibyte, unbounded.rlim_max};
    bool const isSanitized = present >> 40 != 0; // which takes that many addresses
    ::setrlimit(RLIMIT_AS, isSanitized ? &unbounded : &bound);
    for (unsigned round = 0; round < 200; ++round) {
        std::string hostile = noise(1 + round % 16, round);
        for (auto const unit = noise(1 + round % 4, ~round); hostile.size() < 2 * mebibyte;) {
            hostile += unit; // nests, repeats or claims without end
        }
        for (auto const& [format, typeID] : typeOf) {
            SCOPED_TRACE(format);
            EXPECT_NO_THROW(isRefused(format, hostile));
        }
    }
    ::setrlimit(RLIMIT_AS, &unbounded);
}

TEST_F(ExampleModules, StopInTimeAndReadNoMoreThanTheLimit) {
    auto const large = noise(8 * mebibyte);
    for (auto const& [format, typeID] : typeOf) {
        SCOPED_TRACE(format);
        EXPECT_TRUE(isRefused(format, encoded(format, large)));
        stop_source stop;
        tests::Target target;
        target.take = [&](std::streamsize n) { // requests a stop in the third mebibyte
            target.got.size() > 2 * mebibyte ? void(stop.request_stop()) : void();
            return n;
        };
        auto const [serialisers, sentinel] =
            createSerialisersFor(sample(typeID, large), catalogue, std::vector{format}, stop);
        EXPECT_THROW(serialisers.at(0)(target.stream), std::system_error);
        EXPECT_GT(target.got.size(), 2 * mebibyte);
        EXPECT_LE(target.got.size(), 3 * mebibyte);
    }
}

} // namespace
