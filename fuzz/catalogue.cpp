// SPDX-License-Identifier: Apache-2.0
// The catalogue against a list of its records that is searched from the first one on.
#include "Input.h"

#include <bedrock/core/diag/terminate.h>

namespace {

using namespace tests;

constexpr std::uint64_t voidID = getTypeID<void>();
constexpr std::uint64_t anyFormatIDs[] = {getTypeID<std::istream>(), getTypeID<GenericPayload>()};

struct Entry {
    std::string format;
    std::uint64_t id;
    IDs ids;
    int name; // in order of registration
};
using Entries = std::vector<Entry>;

// What a LookUpError says. The text of an exception stops at a zero.
std::string missing(std::string text, std::string const& format, IDs const& ids,
                    Formats const& supported) {
    return text.substr(0, text.find('\0')) + ": " +
           testing::PrintToString(std::tuple(format, ids, supported));
}

// The result of a look-up: what is written or read, or the error.
std::string said(auto lookUp) {
    try {
        auto const found = lookUp();
        if constexpr (std::is_same_v<decltype(found), Serialiser const>) {
            return written(found.getSerialiser(GenericPayload()));
        } else if constexpr (std::is_same_v<decltype(found), GenericDeserialiser const>) {
            return std::to_string(valueRead(found));
        } else {
            return written(found);
        }
    } catch (std::out_of_range const&) {
        return "out of range";
    } catch (LookUpError const& error) {
        SAME(error.typeID(), error.typeIDs().empty() ? 0 : error.typeIDs()[0]);
        return missing(error.what(), error.wireFormat(), error.typeIDs(),
                       error.supportedWireFormats());
    }
}

// The same, from the entries.
std::string said(Entries const& entries, auto fits, std::string const& factory, std::string none) {
    auto const found = std::ranges::find_if(entries, fits);
    return found != entries.end() ? std::to_string(found->name) + factory : none;
}

Formats formats(Entries const& entries, auto fits) {
    Formats all;
    for (Entry const& e : entries) {
        if (fits(e)) {
            all.push_back(e.format);
        }
    }
    return all;
}

struct Run {
    fuzz::Input input;
    Catalogue catalogue{};
    Entries serialisers{};
    Entries deserialisers{};
    int names = 0;

    std::string format() {
        std::size_t const n = input.below(40);
        std::string const some[] = {"", "*", "**", "a*", "*a", std::string("\0", 1)};
        return n < std::size(some) ? some[n]
               : n < 16            ? std::string(1, static_cast<char>(n + 'A'))
                                   : std::string(3 * n, 'x') + std::to_string(n % 2);
    }
    std::uint64_t id() {
        std::size_t const n = input.below(32);
        return n == 0 ? voidID : n < 3 ? anyFormatIDs[n - 1] : n < 8 ? n : n << 50;
    }
    IDs ids() {
        std::size_t const n = input.below(8);
        IDs list(n % 4);
        std::ranges::generate(list, [this] { return id(); });
        return list;
    }

    void step(std::string const& format, std::uint64_t id, IDs const& ids) {
        bool const isVoid = id == voidID;
        auto const hasID = [](std::uint64_t wanted) {
            return [wanted](auto& e) { return e.id == wanted; };
        };
        auto const hasList = [&](auto& e) { return e.ids == ids; };
        auto const inFormat = [&](auto has) {
            return [=](auto& e) { return has(e) && e.format == format; };
        };
        auto const inAny = [&](auto has) {
            return [=](auto& e) { return has(e) && (format == "*" || e.format == format); };
        };
        // The lengths of all lists, and what a failure leaves alone.
        auto const state = [&] {
            return std::tuple(catalogue.getSupportedWireFormats(id).size(),
                              catalogue.getSupportedWireFormats(ids).size(),
                              catalogue.getSupportedDeserialisationWireFormats(id).size());
        };
        auto const withFaults = [&](auto const& act) {
            input.withFaults(act, [&, before = state()] { SAME(state(), before); });
        };
        auto const addSerialiser = [&] {
            Serialiser const added = record(format, id, ids, std::to_string(++names));
            withFaults([&] { catalogue.add(Serialiser(added)); });
            auto const same = inFormat([&](auto& e) { return e.id == id || hasList(e); });
            if (formats(serialisers, same).empty()) {
                serialisers.push_back({format, id, ids, names});
            }
        };
        auto const addDeserialiser = [&] {
            Deserialiser const added = reader(format, id, ++names);
            withFaults([&] { catalogue.add(Deserialiser(added)); });
            if (formats(deserialisers, inFormat(hasID(id))).empty()) {
                deserialisers.push_back({format, id, ids, names});
            }
        };
        auto const lookForSerialiser = [&] {
            auto const none = [&](IDs const& asked, Formats const& supported) {
                return missing("No serialiser found for " + format, format, asked, supported);
            };
            Formats const ofList = formats(serialisers, hasList);
            std::string const byList = said(serialisers, inAny(hasList), " payload", "");
            auto const byID = [&](std::uint64_t asked, auto factory) {
                return said(serialisers, inAny(hasID(asked)), factory,
                            none({asked}, formats(serialisers, hasID(asked))));
            };
            auto const byPayload = [&] {
                Formats supported = ofList;
                for (std::string const& each : formats(serialisers, hasID(ids[0]))) {
                    if (std::ranges::count(ofList, each) == 0) {
                        supported.push_back(each);
                    }
                }
                return said(serialisers, inAny(hasID(ids[0])), " payload", none(ids, supported));
            };
            auto const byElement = [&](std::size_t i, auto factory) {
                return i < ids.size() ? byID(ids[i], factory) : "out of range";
            };
            auto const ask = [&](auto&&... key) {
                return said([&] { return catalogue.getSerialiserFor(format, std::move(key)...); });
            };
            SAME(ask(id), isVoid ? "" : byID(id, " payload"));
            SAME(ask(ids), byList.empty() ? none(ids, ofList) : byList);
            SAME(ask(payloadOf(ids)), !byList.empty() ? byList
                                      : ids.empty()   ? "out of range"
                                                      : byPayload());
            for (std::size_t i = 0; i <= ids.size(); ++i) {
                SAME(ask(viewOf(ids, i)), byElement(i, " view"));
                SAME(ask(viewOf(ids, i), stop_source()), byElement(i, " stop"));
            }
            SAME(catalogue.getSupportedWireFormats(ids), ofList);
            SAME(catalogue.getSupportedWireFormats(id),
                 isVoid ? Formats{"builtin"} : formats(serialisers, hasID(id)));
        };
        auto const lookForDeserialiser = [&] {
            auto const found = said(deserialisers, inFormat(hasID(id)), "",
                                    missing("No deserialiser found for " + format, format, {id},
                                            formats(deserialisers, hasID(id))));
            SAME(said([&] { return catalogue.getDeserialiserFor(format, id); }),
                 isVoid ? "out of range" : found); // a payload without elements
            SAME(catalogue.hasDeserialiserFor(format, id), isVoid || found[0] != 'N');
            bool const isAny = std::ranges::count(anyFormatIDs, id) > 0;
            SAME(catalogue.getSupportedDeserialisationWireFormats(id),
                 isVoid  ? Formats{"builtin"}
                 : isAny ? Formats{"*"}
                         : formats(deserialisers, hasID(id)));
        };
        auto const lookForVoid = [&] {
            Serialiser const builtin = catalogue.getSerialiserFor(format, voidID);
            SAME(builtin.getWireFormat(), format);
            SAME(builtin.getTypeID(), voidID);
            SAME(builtin.getTypeIDs(), IDs());
            SAME(written(builtin.getSerialiser(viewOf(ids, 0))), "");
            SAME(written(builtin.getSerialiser(viewOf(ids, 0), stop_source())), "");
            SAME(written(catalogue.getSerialiserFor(format, GenericPayload())), "");
            std::istringstream unread("x");
            SAME(catalogue.getDeserialiserFor(format, voidID)(unread).elementCount, 0U);
            SAME(unread.tellg(), 0);
        };
        auto const lookWithFaults = [&] {
            Entry const& last = serialisers.back();
            withFaults([&] {
                discard(state());
                discard(catalogue.getSerialiserFor("*", last.id));
                discard(catalogue.getSerialiserFor("*", payloadOf({last.id})));
                discard(catalogue.getSerialiserFor(last.format, viewOf({last.id}, 0)));
                discard(catalogue.getSerialiserFor("*", viewOf({last.id}, 0), stop_source()));
                discard(catalogue.getDeserialiserFor(format, voidID));
            });
        };
        input.oneOf(DO(addSerialiser()), DO(addDeserialiser()), DO(lookForSerialiser()),
                    DO(lookForDeserialiser()), DO(lookForVoid()),
                    DO(serialisers.empty() ? void() : lookWithFaults()));
    }
};

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    bedrock_diag_set_terminate(false);
    Run run{fuzz::Input(data, size)};
    while (run.input) {
        std::string const format = run.format();
        std::uint64_t const id = run.id();
        run.step(format, id, run.ids());
    }
    return 0;
}
