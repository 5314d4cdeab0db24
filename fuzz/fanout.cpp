// SPDX-License-Identifier: Apache-2.0
// The fan-out, with factories that keep, share, drop or refuse what they are given, against a count
// of the references that must be left.
#include "../tests/Support.h"
#include "Input.h"

namespace {

using namespace tests;
using fuzz::require;

// The wire formats; what comes of the first three, the others say why not.
enum Format : std::size_t { keep, share, drop, refuse, empty, unknown };
constexpr char const* names[] = {"keep", "share", "drop", "refuse", "empty", "unknown"};
constexpr char const* outcomes[] = {
    "", "", "", "refused", "bad_function_call", "No serialiser found for unknown"};
constexpr auto pastEnd = "past the end";
constexpr auto tooFew = "Fewer wire formats than payload elements";

struct Run {
    Catalogue catalogue{};
    std::vector<GenericPayloadView> shared{}; // kept by a factory, beside its serialiser
    std::vector<stop_source> sources{};       // given to factories

    Run() {
        constexpr std::uint64_t id = getTypeID<Element>();
        for (Format const format : {keep, share, drop, refuse}) {
            auto const make = [this, format](GenericPayloadView&& view, auto&&... source) {
                (sources.push_back(std::move(source)), ...);
                if (format == share) {
                    shared.push_back(view);
                }
                if (format == refuse) {
                    throw std::domain_error(outcomes[refuse]);
                }
                return format == drop
                           ? GenericSerialiser()
                           : GenericSerialiser([view = std::move(view)](auto, std::ostream& out) {
                                 out << view.index << view.get<Element>().value;
                             });
            };
            catalogue.add(Serialiser(names[format], id, {format}, make, make, nullptr));
        }
        catalogue.add(Serialiser(names[empty], id, {}, nullptr, nullptr, nullptr));
    }

    void round(fuzz::Input& input) {
        int const elements = static_cast<int>(input.below(6));
        auto const count = static_cast<std::size_t>(elements);
        std::atomic<int> destroyed = 0;
        std::shared_ptr<Sentinel> sentinel;
        GenericPayload payload = payloadOf(elements, destroyed);
        bool const claimsMore = input.below(8) == 7; // elements than there are
        payload.objects.emplace_back(this, [&](void*) {
            require(!sentinel || !sentinel->isReleased()); // the payload goes first
        });
        bool const isOneForAll = input.flag();
        bool const hasSource = input.flag();
        payload.elementCount += !claimsMore ? 0 : isOneForAll ? std::size_t{1} << 62 : 1;
        std::vector<std::size_t> formats(isOneForAll ? 1 : input.below(9));
        std::ranges::generate(formats, [&] { return input.below(32) % 9 % 6; });
        Formats wireFormats;
        for (std::size_t const format : formats) {
            wireFormats.emplace_back(format == keep && input.flag() ? "*" : names[format]);
        }

        std::vector<bool> kept; // by the serialiser of each element
        std::size_t sharers = 0;
        std::string expected;
        bool const enough = isOneForAll || formats.size() >= payload.elementCount;
        for (std::size_t i = 0; enough && expected.empty() && i < payload.elementCount; ++i) {
            std::size_t const format = formats[isOneForAll ? 0 : i];
            expected = i < count ? outcomes[format] : pastEnd;
            kept.push_back(format < drop);
            sharers += format == share && expected.empty();
        }
        stop_source const source;
        std::vector<GenericSerialiser> made;
        std::string said;
        try {
            auto const create = [&](auto const& wanted, auto const&... stop) {
                return createSerialisersFor(std::move(payload), catalogue, wanted, stop...);
            };
            auto result =
                isOneForAll ? (hasSource ? create(wireFormats[0], source) : create(wireFormats[0]))
                            : (hasSource ? create(wireFormats, source) : create(wireFormats));
            made = std::move(result.first);
            sentinel = result.second;
        } catch (std::bad_function_call const&) {
            said = outcomes[empty];
        } catch (std::out_of_range const& e) {
            said = enough ? pastEnd : e.what();
        } catch (std::exception const& e) {
            said = e.what();
        }
        require(said == (enough ? expected : tooFew));
        require(shared.size() == sharers && payload.values.size() == (enough ? 0 : count));
        require(std::ranges::count(sources, source) == std::ssize(sources));
        if (!said.empty()) {
            kept.clear();
        }
        require(made.size() == kept.size());
        for (std::size_t i = 0; i < made.size(); ++i) {
            std::string const n = std::to_string(i);
            require(written(made[i]) == (kept[i] ? n + n : ""));
        }

        // One reference goes after the other; with the last one, the payload.
        payload = {};
        for (;;) {
            auto const left = std::ranges::count(kept, true) + std::ssize(shared);
            require(destroyed == (left > 0 ? 0 : elements));
            require(!sentinel || sentinel->isReleased() == (left == 0));
            if (made.empty() && shared.empty()) {
                break;
            }
            std::size_t const next = input.below(made.size() + shared.size());
            if (next < made.size()) {
                made[next] = std::move(made.back());
                kept[next] = kept.back();
                made.pop_back();
                kept.pop_back();
            } else {
                std::swap(shared[next - made.size()], shared.back());
                shared.pop_back();
            }
        }
        sources.clear();
    }
};

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Run run;
    fuzz::Input input(data, size);
    while (input) {
        run.round(input);
    }
    return 0;
}
