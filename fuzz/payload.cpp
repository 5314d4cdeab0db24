// SPDX-License-Identifier: Apache-2.0
// Payloads, references, views, serialisers, deserialisers, records, stop sources and fan-outs: each
// object shows a text, and whatever is copied, moved or assigned, it must show the model's. A "#"
// and a number in a text is something that it keeps alive, and nothing else may.
#include "Input.h"

#include <cmath>
#include <map>
#include <memory>
#include <set>

namespace {

using namespace tests;
using bedrock::concurrent::threadpool::nostopstate;
using courier::hub::core::BadElementType;
using fuzz::Input;

std::multiset<int> alive; // the numbers of what exists
int numbers = 0;
std::map<int, std::shared_ptr<Sentinel>> sentinels; // of the payloads that have such an element

// Something that is kept alive: an element, a handle, what a routine captures.
struct Tracked {
    Tracked() : number(++numbers) { alive.insert(number); }
    Tracked(Tracked const& other) : number(other.number) {
        alive.insert(isFault() ? throw std::domain_error("mine") : number);
    }
    Tracked& operator=(Tracked const&) = delete;
    ~Tracked() {
        alive.erase(alive.find(number));
        if (auto const at = sentinels.find(number); at != sentinels.end()) {
            SAME(at->second->isReleased(), false); // the elements are destroyed first
        }
    }
    int number;
};
std::string tag(int number) { return '#' + std::to_string(number) + '.'; }
std::ostream& operator<<(std::ostream& out, Tracked const& tracked) {
    return out << tag(tracked.number);
}

template <class... T> std::string textOf(T const&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}
// What a call returns, or what it throws.
std::string said(auto call) {
    try {
        return textOf(call());
    } catch (std::bad_function_call const&) {
        return "empty";
    } catch (BadElementType const& error) {
        return textOf("not ", error.index());
    } catch (std::out_of_range const& error) {
        std::string const text = error.what();
        return text.starts_with("GenericPayloadView") || text.starts_with("Fewer") ? text : "no";
    } catch (std::exception const& error) {
        return error.what();
    }
}
std::string stateOf(stop_token const& token) {
    return !token.stop_possible() ? " never" : token.stop_requested() ? " stopped" : " running";
}

stop_source const running, stopped = [] {
    stop_source source;
    SAME(source.request_stop() && !source.request_stop() && source.stop_requested(), true);
    return source;
}();

std::string show(stop_source const& source) {
    return source == running                    ? " running"
           : source == stopped                  ? " stopped"
           : source == stop_source(nostopstate) ? " never"
           : source.stop_possible()             ? " own"
                                                : " broken";
}
std::string show(stop_token const& token) {
    SAME(token == stop_token(), !token.stop_possible());
    return stateOf(token) + (token == running.get_token() ? " same" : "");
}
std::string handleOf(auto const& object) {
    auto const handle = object.getHandle();
    return handle ? textOf(*std::static_pointer_cast<Tracked>(handle)) : "";
}
std::string show(GenericPayload const& payload) {
    std::string text = textOf(payload.typeIDs.size(), payload.callables.size());
    for (std::size_t i = 0; i <= payload.values.size(); ++i) {
        text += ' ' + said([&] { return payload.get<int>(i); }) + ' ' +
                said([&] { return textOf(const_cast<GenericPayload&>(payload).get<Tracked>(i)); });
    }
    for (auto const& object : payload.objects) {
        text += textOf(*std::static_pointer_cast<Tracked>(object));
    }
    return text;
}
std::string show(GenericPayloadWrapperPtr const& shared) {
    SAME(shared.get(), shared.operator->());
    return shared ? textOf(std::as_const(*shared).get().get<Tracked>(0)) : "null";
}
std::string const noPayload = [] {
    std::string const text = "GenericPayloadView has no payload";
    return text + ' ' + text + ' ' + text;
}();
std::string show(GenericPayloadView const& view) {
    std::string const text = said([&] { return view.getTypeID() == getTypeID<int>(); }) + ' ' +
                             said([&] { return view.get<int>(); }) + ' ' +
                             said([&] { return textOf(view.get<Tracked>()); });
    return view.wrapper ? textOf(view.index, ' ', text, ' ', show(view.wrapper)) : text;
}
std::string show(GenericSerialiser const& held) {
    std::string const text = said([&] {
        std::ostringstream out;
        held(out), held(stopped.get_token(), out), held(stop_token(), out);
        return out.str();
    });
    return text + '|' + held.getText() + '|' + show(held.getStopSource()) + handleOf(held);
}
std::string show(GenericDeserialiser const& held) {
    std::istringstream in("12");
    std::string const text = said([&] {
        GenericPayload const read = GenericDeserialiser(held)(in); // leaves a count in `held` alone
        return textOf(read.elementCount, ' ', said([&] { return read.get<int>(0); }), ' ',
                      said([&] { return read.get<std::string>(0); }), ' ', in.tellg());
    });
    return text + handleOf(held);
}
std::string show(DeferredSerialiser const& held) {
    return said([&] {
        std::ostringstream out;
        held(out);
        return out.str();
    });
}
std::string show(Serialiser const& held) {
    GenericPayloadView view = viewOf({1}, 0), other = view;
    GenericPayload payload = payloadOf({1});
    std::string const texts[] = {
        said([&] { return written(held.getSerialiser(std::move(view))); }),
        said([&] { return written(held.getSerialiser(std::move(other), stop_source(running))); }),
        said([&] { return written(held.getSerialiser(std::move(payload))); })};
    SAME(view.wrapper.get() != nullptr, texts[0] == "empty"); // no other factory takes it
    SAME(other.wrapper.get() != nullptr, texts[1] == "empty");
    SAME(payload.typeIDs.empty(), texts[2] != "empty");
    std::string const format = held.getWireFormat();
    return textOf(format, held.getTypeIDs().size(), format.empty() ? 0 : held.getTypeID(), ' ',
                  texts[0], ' ', texts[1], ' ', texts[2]);
}
std::string show(Deserialiser const& held) {
    std::string const text = show(held.getDeserialiser());
    return text == "empty" ? text : textOf(held.getWireFormat(), held.getTypeID(), ' ', text);
}

// Two objects of a class with the texts that they must show.
template <class T> struct Pool {
    using Made = std::pair<std::unique_ptr<T>, std::string>;
    Made objects[2];

    void step(Input& input, auto make, std::string const& movedFrom) {
        Made& mine = objects[input.below(2)];
        Made& theirs = objects[input.below(2)];
        auto& object = mine.first;
        auto& other = theirs.first;
        auto& text = mine.second;
        auto& otherText = theirs.second;
        auto const replace = [&] {
            Made made = make();
            input.flag() ? void(object = std::move(made.first))
                         : void(*object = std::move(*made.first));
            text = made.second;
        };
        auto const move = [&](auto act) {
            std::string const moved = std::exchange(otherText, movedFrom);
            act();
            text = moved;
        };
        auto const copy = [&]([[maybe_unused]] auto act) {
            if constexpr (std::is_copy_assignable_v<T>) {
                bool const isStrong = !std::is_same_v<T, Serialiser>; // which may lose its parts
                input.withFaults([&] { act(*other); }, [&] { isStrong ? check() : void(); });
                text = otherText;
            }
        };
        // That the standard library's containers survive it is nobody's promise.
        bool const isToItself = std::is_same_v<T, GenericPayload> && object == other;
        if (!object || !other) {
            objects[0] = make();
            objects[1] = make();
        }
        input.oneOf(DO(replace()), DO(replace()),
                    DO(move([&] { object = std::make_unique<T>(std::move(*other)); })),
                    DO(isToItself ? void() : move([&] { *object = std::move(*other); })),
                    DO(copy([&](auto& from) { object = std::make_unique<T>(from); })),
                    DO(copy([&](auto const& from) { object = std::make_unique<T>(from); })),
                    DO(copy([&](auto& from) { *object = from; })),
                    DO(copy([&](auto const& from) { *object = from; })));
    }
    void check() const {
        for (auto const& [object, text] : objects) {
            if (object && text != "unspecified") {
                SAME(show(*object), text);
            }
        }
    }
};

struct Run {
    Input input;
    std::tuple<Pool<stop_source>, Pool<stop_token>, Pool<GenericPayload>,
               Pool<GenericPayloadWrapperPtr>, Pool<GenericPayloadView>, Pool<GenericSerialiser>,
               Pool<GenericDeserialiser>, Pool<DeferredSerialiser>, Pool<Serialiser>,
               Pool<Deserialiser>>
        pools{};

    // A new object of the class, and its text. Each make() makes it in every way.
    template <class T> struct Maker {
        Input& input;
        typename Pool<T>::Made made{};
        template <class... Arguments> void operator()(std::string text, Arguments&&... arguments) {
            if constexpr (std::is_constructible_v<T, Arguments&...>) {
                auto const make = [&] { made.first = std::make_unique<T>(arguments...); };
                auto const check = [before = alive] { SAME(alive, before); };
                input.flag() ? input.withFaults(make, check) : void();
            }
            if (!made.first) {
                made.first = std::make_unique<T>(std::forward<Arguments>(arguments)...);
            }
            made.second = std::move(text);
        }
    };

    void make(Maker<stop_source>& as) {
        input.oneOf(DO(as(" running", running)), DO(as(" stopped", stopped)), DO(as(" own")),
                    DO(as(" never", nostopstate)));
    }
    void make(Maker<stop_token>& as) {
        input.oneOf(DO(as(" running same", running.get_token())), DO(as(" never")),
                    DO(as(" stopped", stopped.get_token())),
                    DO(as(" running", stop_source().get_token())), // and nobody can stop it
                    DO(as(" never", stop_source(nostopstate).get_token())));
    }
    void make(Maker<GenericPayload>& as) {
        GenericPayload payload;
        if (input.flag()) {
            payload.emplace<int>(1);
            discard(GenericPayload(std::move(payload))); // which keeps its count
        }
        std::size_t const count = input.below(4);
        std::string text = "00";
        for (std::size_t i = 0; i < count; ++i) {
            auto const shared = std::make_shared<Tracked>();
            std::string const bad = textOf("not ", i);
            auto const add = [&](std::string const& shown, auto act) {
                input.withFaults(act, [&] { SAME(show(payload), text + " no no"); });
                text = textOf(i + 1, text.substr(1), ' ', shown);
                SAME(payload.elementCount, i + 1);
            };
            input.oneOf(
                DO(add("7 " + bad,
                       [&] { SAME(&payload.emplace<int>(7) == &payload.get<int>(i), true); })),
                DO(add(textOf(bad, ' ', *shared), [&] { payload.add(shared); })),
                DO(add(textOf(bad, ' ', bad), [&] { payload.add(std::shared_ptr<Tracked>()); })));
        }
        payload.objects.push_back(std::make_shared<Tracked>());
        text += " no no" + tag(numbers);
        as(text, std::move(payload));
    }
    void make(Maker<GenericPayloadWrapperPtr>& as) {
        GenericPayload payload;
        int const number = payload.emplace<Tracked>().number;
        payload.emplace<int>(7);
        GenericPayloadWrapperPtr shared;
        input.withFaults([&] { shared = GenericPayloadWrapperPtr::make(std::move(payload)); },
                         [&] { SAME(payload.values.size(), 2U); });
        sentinels.emplace(number, shared->getSentinel());
        std::string const text = tag(number);
        auto const adopt = [&] {
            shared->addRef();
            as(text, shared.get(), false);
        };
        input.oneOf(DO(as("null")), DO(as("null", nullptr)), DO(as(text, std::move(shared))),
                    DO(as(text, shared.get())), DO(adopt()));
    }
    void make(Maker<GenericPayloadView>& as) {
        Maker<GenericPayloadWrapperPtr> ofShared{input};
        make(ofShared);
        auto const& [shared, text] = ofShared.made;
        std::size_t const index = input.length(2);
        std::string const element = index == 0   ? "0 not 0 " + text
                                    : index == 1 ? "1 7 not 1"
                                                 : "no no no";
        as(*shared ? textOf(index, ' ', element, ' ', text) : noPayload, *shared, index);
    }
    void make(Maker<GenericSerialiser>& as) {
        auto const handle = std::make_shared<Tracked>();
        Tracked const mine;
        GenericSerialiser::Routine const routine = [mine](stop_token const& token, auto& out) {
            out << mine << stateOf(token);
        };
        auto const text = [&](char const* own, std::string const& rest) {
            return textOf(mine, own, mine, " stopped", mine, " never|", rest);
        };
        input.oneOf(DO(as("|| own")), DO(as(text(" never", "| never"), routine)),
                    DO(as(text(" running", "| running"), routine, running)),
                    DO(as(text(" stopped", "text| stopped"), routine, stopped, "text")),
                    DO(as(text(" running", textOf("text| running", *handle)), routine, running,
                          "text", handle)),
                    DO(as(textOf(mine, "|| never"),
                          [mine](auto&&, auto&&) { throw std::runtime_error(textOf(mine)); })),
                    DO(as("empty|| never", GenericSerialiser::Routine())));
    }
    void make(Maker<GenericDeserialiser>& as) {
        auto const handle = std::make_shared<Tracked>();
        std::string const shown = textOf(*handle);
        Tracked const mine;
        static int const five = 5;
        auto const whole = [mine](std::istream& in) {
            GenericPayload payload;
            payload.emplace<std::string>(textOf(mine)) += static_cast<char>(in.get());
            return payload;
        };
        int (*const function)(std::istream&) = [](std::istream& in) { return in.get(); };
        using Read = std::function<int(std::istream&)>;
        using Whole = std::function<GenericPayload(std::istream&)>;
        using Function = void (*)(std::istream&);
        auto const member = static_cast<int (std::istream::*)()>(&std::istream::get);
        std::string const one = "1 49 not 0 1";
        input.oneOf(
            DO(as(one, function)), DO(as(one, Read(function))), DO(as(one, member)),
            DO(as(
                one + shown, [](std::istream& in) { return in.get(); }, handle)),
            DO(as(
                "0 no no 1" + shown, [](std::istream& in) { in.get(); }, handle)),
            DO(as("1 5 not 0 0", [](std::istream&) -> int const& { return five; })),
            DO(as("1 1 not 0 0", [n = 0](std::istream&) mutable { return ++n; })),
            DO(as("1 not 0 not 0 0", [](std::istream&) { return std::make_unique<int>(); })),
            DO(as(textOf("1 not 0 ", mine, "1 1"), whole)),
            DO(as(textOf("1 not 0 ", mine, "1 1", shown), Whole(whole), handle)),
            DO(as("empty" + shown, Function(), handle)), DO(as("empty", Read())));
    }
    void make(Maker<DeferredSerialiser>& as) {
        auto const write = [](std::ostream& out) { out << 'x'; };
        DeferredSerialiser::Routine routine = write;
        input.oneOf(DO(as("")), DO(as("x", write)), DO(as("x", routine)),
                    DO(as("x", std::move(routine))),
                    DO(as("empty", DeferredSerialiser::Routine())));
    }
    void make(Maker<Serialiser>& as) {
        auto const factory = [mine = Tracked()](auto&&... given) {
            discard(std::tuple(std::move(given)...)); // takes them over
            return writing(textOf(mine, '/', sizeof...(given)));
        };
        bool const has[] = {input.flag(), input.flag(), input.flag()};
        auto const text = [&](int i) {
            return has[i] ? textOf(tag(numbers), '/', i == 1 ? 2 : 1) : "empty";
        };
        auto const choose = [&](int i, auto make) { return has[i] ? make : decltype(make)(); };
        IDs const list(input.below(3), 8);
        std::uint64_t const id = 6 + input.below(2);
        std::string const format = textOf("format ", numbers, ' ');
        as(textOf(format, list.size(), id, ' ', text(0), ' ', text(1), ' ', text(2)), format, id,
           list, choose(0, Serialiser::ViewFactory(factory)),
           choose(1, Serialiser::CancellableViewFactory(factory)),
           choose(2, Serialiser::PayloadFactory(factory)));
    }
    void make(Maker<Deserialiser>& as) {
        Maker<GenericDeserialiser> routine{input};
        make(routine);
        auto const& [object, text] = routine.made;
        std::uint64_t const id = 6 + input.below(2);
        std::string const format = textOf("format ", numbers, ' ');
        as(text == "empty" ? text : textOf(format, id, ' ', text), format, id, *object);
    }

    template <class T> void step(std::string const& movedFrom) {
        auto& pool = std::get<Pool<T>>(pools);
        auto const makeOne = [this] {
            Maker<T> maker{input};
            make(maker);
            return std::move(maker.made);
        };
        pool.step(input, makeOne, movedFrom);
        pool.check();
    }

    // The last write releases the routine, even if it throws.
    void writeLast() {
        auto& [object, text] = std::get<Pool<GenericSerialiser>>(pools).objects[input.below(2)];
        bool const hasToken = input.flag();
        auto const write = [&](auto&& serialiser) {
            return said([&] {
                std::ostringstream out;
                hasToken ? std::forward<decltype(serialiser)>(serialiser)(stopped.get_token(), out)
                         : std::forward<decltype(serialiser)>(serialiser)(out);
                return out.str();
            });
        };
        if (object) {
            std::string const expected = write(std::as_const(*object));
            SAME(write(std::move(*object)), expected);
            text = "empty" + text.substr(text.find('|'));
        }
    }

    void fanOut();
    void act() {
        input.oneOf(
            DO(step<stop_source>(" never")), DO(step<stop_token>(" never")),
            DO(step<GenericPayload>("00 no no")), DO(step<GenericPayloadWrapperPtr>("null")),
            DO(step<GenericPayloadView>(noPayload)), DO(step<GenericSerialiser>("empty|| never")),
            DO(step<GenericDeserialiser>("empty")), DO(step<DeferredSerialiser>("unspecified")),
            DO(step<Serialiser>("00 empty empty empty")), DO(step<Deserialiser>("empty")),
            DO(writeLast()), DO(fanOut()));
    }

    // What is alive is in a text, and a payload's sentinel tells whether it is.
    void check() {
        std::set<int> expected;
        auto const collect = [&](auto const& pool) {
            for (auto const& [object, text] : pool.objects) {
                for (std::size_t at = 0; (at = text.find('#', at)) != std::string::npos; ++at) {
                    expected.insert(std::stoi(text.substr(at + 1)));
                }
            }
        };
        std::apply([&](auto const&... pool) { (collect(pool), ...); }, pools);
        SAME(std::set<int>(alive.begin(), alive.end()), expected);
        std::erase_if(sentinels, [](auto const& each) {
            auto const& [number, sentinel] = each;
            bool const isReleased = !alive.contains(number);
            SAME(sentinel->isReleased(), isReleased);
            for (double const seconds : {0.0, -1.0, 1e-9, std::nan(""), isReleased ? 1e300 : 0.0}) {
                SAME(sentinel->waitFor(std::chrono::duration<double>(seconds)), isReleased);
            }
            SAME(sentinel->waitFor(std::chrono::hours::min()), isReleased);
            isReleased ? sentinel->wait() : void();
            return isReleased;
        });
    }
};

// The catalogue of the fan-outs. The names say what the factories do.
struct Factories : Catalogue {
    Factories() {
        auto const write = [](GenericPayloadView&& view, auto const&... source) {
            return GenericSerialiser(
                [view = std::move(view)](auto const& token, auto& out) {
                    out << view.index << view.get<Tracked>() << stateOf(token);
                },
                source...);
        };
        auto const drop = [](auto&&...) { return writing("dropped"); };
        auto const refuse = [](auto&&...) -> GenericSerialiser {
            throw std::runtime_error("refused");
        };
        auto const ask = [this](GenericPayloadView&& view, auto&&... source) {
            return getSerialiserFor("write", std::move(view), std::move(source)...);
        };
        constexpr auto id = getTypeID<Tracked>();
        add(Serialiser("write", id, {1}, write, write, nullptr));
        add(Serialiser("drop", id, {2}, drop, drop, nullptr));
        add(Serialiser("refuse", id, {3}, refuse, refuse, nullptr));
        add(Serialiser("empty", id, {4}, nullptr, nullptr, nullptr));
        add(Serialiser("ask", id, {5}, ask, ask, nullptr));
    }
} const formats;

void Run::fanOut() {
    GenericPayload payload;
    std::size_t const count = input.below(5);
    int const first = numbers + 1;
    for (std::size_t i = 0; i < count; ++i) {
        payload.emplace<Tracked>();
    }
    std::size_t const claimed = payload.elementCount = input.flag() ? count : input.length(count);
    Formats list(claimed > 8 ? input.below(8) : input.length(claimed) % 8, "write");
    for (std::string& format : list) {
        char const* const names[] = {"drop", "refuse", "empty", "ask", "*", "unknown"};
        format = input.oneIn(3) ? names[input.below(6)] : format;
    }
    bool const isForAll = input.oneIn(3) && !list.empty();
    bool const isBraced = input.flag() && list.size() == 2;
    bool const isStoppable = input.flag();
    stop_source source;

    std::string error = !isForAll && list.size() < claimed
                            ? "Fewer wire formats than payload elements"
                            : ""; // otherwise that of the first element that has one
    std::vector<std::string> texts;
    std::map<std::string, std::string> const errors{
        {"refuse", "refused"}, {"empty", "empty"}, {"unknown", "No serialiser found for unknown"}};
    for (std::size_t i = 0; error.empty() && i < claimed; ++i) {
        std::string const& format = list[isForAll ? 0 : i];
        if (i >= count || errors.contains(format)) {
            error = i >= count ? "no" : errors.at(format);
        } else {
            texts.push_back(format == "drop" ? "dropped"
                                             : textOf(i, tag(first + static_cast<int>(i)),
                                                      isStoppable ? " stopped" : " never"));
        }
    }
    input.withFaults(
        [&] {
            discard(createSerialisersFor(payloadOf(IDs(2, getTypeID<Tracked>())), formats, "write",
                                         source));
        },
        [before = alive] { SAME(alive, before); });
    std::pair<std::vector<GenericSerialiser>, std::shared_ptr<Sentinel>> made;
    auto const create = [&](auto const&... stop) {
        auto make = [&](auto const& given) {
            made = createSerialisersFor(std::move(payload), formats, given, stop...);
        };
        isForAll   ? make(list[0])
        : isBraced ? make(std::initializer_list<std::string>{list[0], list[1]})
                   : make(list);
        return "";
    };
    SAME(said([&] { return isStoppable ? create(source) : create(); }), error);
    SAME(payload.values.size(), error.starts_with("Fewer") ? count : 0);
    auto& [serialisers, sentinel] = made;
    SAME(serialisers.size(), error.empty() ? texts.size() : 0);
    source.request_stop();
    while (!serialisers.empty()) { // dropped in any order
        auto const at = static_cast<std::ptrdiff_t>(input.below(serialisers.size()));
        SAME(written(serialisers.begin()[at]), texts.begin()[at]);
        serialisers.erase(serialisers.begin() + at);
        texts.erase(texts.begin() + at);
        bool const isKept =
            std::ranges::any_of(texts, [](auto& text) { return text != "dropped"; });
        SAME(sentinel->isReleased(), !isKept);
        SAME(alive.contains(first), isKept);
    }
    SAME(sentinel == nullptr || sentinel->isReleased(), true);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    {
        Run run{Input(data, size)};
        while (run.input) {
            run.act();
            run.check();
        }
    }
    SAME(alive.size(), 0U);
    sentinels.clear();
    return 0;
}
