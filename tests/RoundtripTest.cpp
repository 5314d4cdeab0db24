// SPDX-License-Identifier: Apache-2.0
// The example program, run as a user would, and its modules, fed what no honest sender sends.

#include "../examples/roundtrip/Modules.h"
#include "Blob.h"
#include "Document.h"
#include "ReadLimit.h"

#include <courier/hub/serialisation/FanOut.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <regex>
#include <sstream>

using namespace courier::examples;
using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload, courier::hub::core::getTypeID;

namespace {

constexpr std::size_t mebibyte = 1 << 20;

std::string noise(std::size_t size) { // does not compress
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), std::mt19937(static_cast<unsigned>(size)));
    return bytes;
}

GenericPayload sample(std::uint64_t typeID, std::string const& bytes) {
    GenericPayload payload;
    if (typeID == getTypeID<Document>()) {
        nlohmann::json const list(bytes.size() / 32, {"sixteen bytes...", 1.5, nullptr});
        payload.add(std::make_shared<Document>(Document{{{"list", list}}}));
    } else {
        payload.add(std::make_shared<Blob>(ByteBuffer(ByteBufferView(bytes))));
    }
    return payload;
}

struct StoppingSink : std::streambuf { // asks for a stop in the third mebibyte, and counts on
    std::streamsize xsputn(char const*, std::streamsize n) override {
        if ((count += static_cast<std::size_t>(n)) > 2 * mebibyte) {
            stop.request_stop();
        }
        return n;
    }
    stop_source stop;
    std::size_t count = 0;
};

TEST(RoundtripTest, ProgramSaysWhatCameBackAndWhatWentWrong) {
    auto const directory = testing::TempDir() + "roundtrip" + std::to_string(::getpid());
    std::filesystem::create_directory(directory);
    std::filesystem::current_path(directory);
    std::ofstream("doc.json") << R"({"a": [1, -2.5, 9223372036854775807, null, "\u00e9"]})";
    std::ofstream("list.json") << "[1, 2]";
    std::ofstream("bad.json") << "{\n  \"\xC3\xA9\": nul\n}";
    std::ofstream("empty") << "";
    std::ofstream("odd") << noise(5137); // not a multiple of a page
    std::ofstream("big") << noise(64 * mebibyte);
    std::string const bigs = " big big big big big big big big"; // takes seconds to deflate
    for (auto const& [arguments, status, output] :
         std::initializer_list<std::tuple<std::string, int, char const*>>{
             {"", 0, "LICENSE .* identical\n.*json .* identical\n.* identical\n\n3 of 3"},
             {"--list", 0, "Document  0x\\w{16}  json cbor .*\nBlob .*  raw deflate zstd"},
             {"doc.json empty", 0, "  json .* identical\nempty .*  raw .* identical\n\n2 of 2"},
             {"-f cbor -f msgpack doc.json list.json", 0, " cbor .*\n.* msgpack .*\n\n2 of 2"},
             {"-f bson -f ubjson doc.json list.json", 0, " bson .*\n.* ubjson .*\n\n2 of 2"},
             {"-f deflate -f zstd -t 1 empty odd", 0, " deflate .*\n.* zstd .*\n\n2 of 2"},
             {"missing", 1, "^roundtrip: cannot read missing: No such file or directory\n$"},
             {".", 1, "^roundtrip: cannot read .: Is a directory\n$"},
             {"bad.json", 1, "^roundtrip: bad.json:2:11: syntax error"},
             {"-f bson odd", 1, "^roundtrip: no module .* Blob .*bson.* raw, deflate, zstd\n$"},
             {"-f bson list.json doc.json", 1,
              "FAILED\n.*identical\nroundtrip: list.json: .*object"},
             {"-f raw -f raw odd odd odd", 1, "^roundtrip: too few wire formats: .*\n$"},
             {"--read-limit 1000 -f zstd odd", 1, "FAILED\nroundtrip: odd: cannot be read back"},
             {"--cancel-after 0", 130,
              "not written\n\n0 of 3 .*\nroundtrip: cancelled when 0 of 3"},
             {"--cancel-after 1 -f zstd" + bigs, 130, "not written\n\n.*\nroundtrip: cancelled"},
             {"-f deflate -t 1" + bigs, 130, "not written\n\n.*\nroundtrip: cancelled when . of 8"},
         }) {
        // As if Control-C were pressed. Only the last case runs that long.
        auto const command =
            "timeout -s INT --preserve-status 2 " ROUNDTRIP_PROGRAM " " + arguments;
        int const result = std::system((command + " >output 2>&1").c_str());
        std::ostringstream text;
        text << std::ifstream("output").rdbuf();
        EXPECT_EQ(WEXITSTATUS(result), status) << command << '\n' << text.str();
        EXPECT_TRUE(std::regex_search(text.str(), std::regex(output))) << command << text.str();
    }
    std::filesystem::current_path("/");
    std::filesystem::remove_all(directory);
}

TEST(RoundtripTest, ModulesRefuseDamageStopInTimeAndUnload) {
    auto const areMapped = [] {
        std::ostringstream maps;
        maps << std::ifstream("/proc/self/maps").rdbuf();
        return std::regex_search(maps.str(), std::regex("documents.so|blobs.so"));
    };
    std::optional<Modules> modules(std::in_place);
    std::optional<Catalogue> catalogue(std::in_place);
    modules->load(MODULE_DIR, *catalogue);
    EXPECT_TRUE(areMapped());
    auto const isRefused = [&](auto const& format, auto typeID, std::string const& bytes) {
        auto const deserialise = catalogue->getDeserialiserFor(format, typeID);
        std::static_pointer_cast<ReadLimit>(deserialise.getHandle())->bytes = 4 * mebibyte;
        std::istringstream in(bytes);
        try {
            return deserialise(in).elementCount != 1;
        } catch (std::exception const& error) {
            return *error.what() != '\0';
        }
    };

    std::string const huge = "\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF";
    for (auto const& [format, bytes] : std::initializer_list<std::pair<char const*, std::string>>{
             {"json", std::string(mebibyte, '[')},
             {"cbor", std::string(mebibyte, '\x81')}, // arrays in each other
             {"cbor", std::string(mebibyte, '\x7F')}, // strings in each other
             {"cbor", '\x9B' + huge},                 // so many elements
             {"msgpack", std::string(mebibyte, '\x91')},
             {"ubjson", "[$Z#L" + huge}, // so many nulls, which take no byte each
         }) {
        EXPECT_TRUE(isRefused(format, getTypeID<Document>(), bytes)) << format << bytes.size();
    }

    auto const large = noise(8 * mebibyte);
    for (auto const typeID : {getTypeID<Document>(), getTypeID<Blob>()}) {
        for (auto const& format : catalogue->getSupportedWireFormats(typeID)) {
            SCOPED_TRACE(format);
            bool const hasEnd = format != "raw";
            bool const hasChecksum = format == "deflate" || format == "zstd";
            std::ostringstream encoded;
            catalogue->getSerialiserFor(format, sample(typeID, noise(300)))(encoded);
            auto const good = encoded.str();
            EXPECT_FALSE(isRefused(format, typeID, good));
            EXPECT_EQ(isRefused(format, typeID, good + 'x'), hasEnd);
            for (std::size_t i = 0; i < good.size(); ++i) {
                EXPECT_EQ(isRefused(format, typeID, good.substr(0, i)), hasEnd) << i;
                auto damaged = good;
                damaged[i] = static_cast<char>(~damaged[i]);
                EXPECT_GE(isRefused(format, typeID, damaged), hasChecksum) << i;
            }
            encoded.str({});
            catalogue->getSerialiserFor(format, sample(typeID, large))(encoded);
            EXPECT_EQ(isRefused(format, typeID, encoded.str()), hasEnd); // above the limit

            StoppingSink sink;
            std::ostream out(&sink);
            auto const [serialisers, sentinel] = createSerialisersFor(
                sample(typeID, large), *catalogue, std::vector{format}, sink.stop);
            EXPECT_THROW(serialisers.at(0)(out), std::system_error);
            EXPECT_TRUE(sink.count > 2 * mebibyte && sink.count <= 3 * mebibyte) << sink.count;
        }
    }
    catalogue.reset();
    modules.reset();
    EXPECT_FALSE(areMapped());
}

} // namespace
