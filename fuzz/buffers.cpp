// SPDX-License-Identifier: Apache-2.0
// ByteBuffer, ByteBufferView and their iterators against a std::vector for each buffer.
#include "Input.h"

#include <array>

namespace {

using namespace tests;
using fuzz::Input;
using Bytes = std::vector<std::byte>;

using fuzz::none, fuzz::said;
std::string const incompatible =
    "Attempting to take difference between incompatible MessageIterators";
std::string const tooLong = "vector too long";
constexpr std::size_t longest = std::numeric_limits<std::ptrdiff_t>::max();

// What a buffer holds. While this vector keeps its block, the buffer must too.
struct Model {
    [[nodiscard]] bool isExternal() const { return block != nullptr; }
    void convert(std::size_t capacity) {
        Bytes larger;
        larger.reserve(capacity);
        larger.insert(larger.end(), bytes.data(), bytes.data() + std::min(capacity, bytes.size()));
        bytes = std::move(larger);
        block = nullptr;
        isShared = false;
        place = nullptr;
    }
    void makeRoom(std::size_t n) {
        if (isExternal() || n > bytes.capacity()) {
            convert(n + n / 2);
        }
    }
    void append(Bytes const& added) {
        makeRoom(bytes.size() + added.size());
        bytes.insert(bytes.end(), added.begin(), added.end());
    }
    void resize(std::size_t n) { makeRoom(n), bytes.resize(n); }
    void reserve(std::size_t n) {
        isExternal() ? convert(std::max(n, bytes.size())) : bytes.reserve(n);
    }
    void clear() { isExternal() ? convert(0) : bytes.clear(); }
    void push_back(std::byte b) {
        isExternal() ? convert(bytes.size()) : void();
        bytes.push_back(b);
    }
    void trimFront(std::size_t n) {
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
        bufferPlace += isExternal() ? n : 0;
    }
    void trimBack(std::size_t n) { bytes.resize(bytes.size() - n); }

    Bytes bytes{};
    std::shared_ptr<void> block{};          // in external form: freed when the buffer's must be
    bool isShared = false;                  // with other parts
    bool keepsDeleter = false;              // even after the block is gone
    std::byte const* place = nullptr;       // of these bytes after the last step
    std::byte const* bufferPlace = nullptr; // and of the buffer's
};

// What an operation throws that needs this capacity, and perhaps half as much again. Nothing
// between what a test may allocate and what no machine has is tried.
bool isTried(std::size_t capacity) { return capacity <= 2 * Input::most || capacity >> 48 != 0; }
std::string refusal(std::size_t capacity, bool withHalf = true) {
    bool const wraps = capacity > longest || (withHalf && capacity / 2 > longest - capacity);
    return wraps ? tooLong : capacity >> 48 != 0 ? std::bad_alloc().what() : none;
}

// What buffers and views share, in every overload: call it with the object and as a constant.
void inspect(auto& holder, Bytes const& bytes, std::string const& name) {
    std::string const pastEnd = "Attempt to access position beyond the end of the " + name;
    SAME(text(ByteBufferView(holder)), text(ByteBufferView(bytes)));
    SAME(Bytes(holder.begin(), holder.end()), bytes);
    SAME(Bytes(holder.cbegin(), holder.cend()), bytes);
    SAME(holder.begin() == holder.cbegin() && holder.cend() == holder.end(), true);
    SAME(holder.size(), bytes.size());
    SAME(holder.empty(), bytes.empty());
    SAME_ERROR(std::out_of_range, pastEnd, holder.at(bytes.size()));
    SAME_ERROR(std::out_of_range, pastEnd, holder.at(~std::size_t{0}));
    SAME_ERROR(std::out_of_range, bytes.empty() ? name + " is empty" : none, holder.front());
    std::byte const* const start = holder.data();
    if (bytes.empty()) {
        SAME(start, nullptr);
    } else {
        std::size_t const last = bytes.size() - 1;
        SAME(&holder.front(), start);
        SAME(&holder[last], start + last);
        SAME(&holder.at(last), start + last);
    }
}

// An iterator against a position.
void walk(Input& input, auto const begin, std::size_t size) {
    auto const n = static_cast<std::ptrdiff_t>(size);
    auto const position = [&] { return static_cast<std::ptrdiff_t>(input.length(size)) % (n + 1); };
    std::ptrdiff_t const at = std::abs(position()), to = std::abs(position()), d = to - at;
    auto it = begin + at;
    auto const there = to + begin;
    SAME(it - begin, at);
    SAME(there - it, d);
    SAME((it <=> there) == (at <=> to) && (it == there) == (at == to), true);
    SAME(it + d == there && d + it == there && there - d == it, true);
    SAME((it += d) == there && (it -= d) == begin + at, true);
    if (at < n) {
        SAME(it.operator->(), std::to_address(begin) + at);
        SAME(&*it == &begin[at] && &there[-d] == &*it, true);
        SAME(it++ - begin, at);
        SAME(it-- - begin, at + 1);
        SAME(++it - begin, at + 1);
        SAME(--it - begin, at);
    }
}

// Parts of something of this size that starts there. No byte is read: few of them may be there.
void parts(Input& input, auto&& of, std::byte const* start, std::size_t size) {
    std::size_t const n = input.length(size), rest = n <= size ? size - n : 0;
    std::size_t const count = input.length(rest);
    auto const isReachable = [](std::size_t offset) { return offset >> 40 == 0; };
    auto const same = [&](std::size_t from, std::size_t length, auto part) {
        if (from > size || length > size - from) {
            SAME_ERROR(std::out_of_range, "Invalid range requested", part());
        } else if (isReachable(from)) {
            ByteBufferView const view = part();
            SAME(view.size(), length);
            SAME(view.data(), start == nullptr || length == 0 ? nullptr : start + from);
        }
    };
    same(0, n, [&] { return of.first(n); });
    same(rest, n, [&] { return of.last(n); });
    same(n, rest, [&] { return of.subview(n); });
    same(n, count, [&] { return of.subview(n, count); });
    same(n, count == 0 ? rest : count, [&] { return of.makeView(n, count); });
    std::string const error = n > size ? "Requested to remove more bytes than exist" : none;
    if (ByteBufferView front(start, size), back = front; isReachable(rest == 0 ? 0 : n)) {
        if (size == 0) {
            SAME_ERROR(std::out_of_range, "ByteBufferView is empty", front.front());
        }
        SAME_ERROR(std::out_of_range, error, front.trimFront(n));
        SAME_ERROR(std::out_of_range, error, back.trimBack(n));
        if (n <= size) {
            SAME(back == ByteBufferView(start, rest), true);
            SAME(front.size(), rest);
            SAME(front.data(), rest == 0 || start == nullptr ? nullptr : start + n);
            SAME(back.data(), rest == 0 ? nullptr : start);
        }
    }
}

// Is copied into everything that is counted, and into nothing else.
using Count = std::shared_ptr<int>;
Count newCount() { return std::make_shared<int>(); }

struct Owner : std::string { // of bytes that adopt() takes
    Count count;
};

struct Run {
    Input input;
    Count owners = newCount(), expectedOwners = newCount(), deleters = newCount();
    bool isSplit = false;
    std::size_t last = 0; // buffer that was acted on
    std::vector<ByteBuffer> buffers = std::vector<ByteBuffer>(3);
    std::array<Model, 3> models{};

    void withFaults(auto const& act) {
        input.withFaults(act, [&] { check(); });
    }
    // A deleter may use the buffers, of which none has the block any more.
    void release(std::byte* block, std::size_t size) {
        for (ByteBuffer& each : buffers) {
            std::less<> const before;
            std::byte const* const start = each.data();
            SAME(start != nullptr && !before(start, block) && before(start, block + size), false);
            std::to_address(each.begin()) == nullptr ? each.clear() : void();
        }
        delete[] block;
    }
    ByteBuffer adoptBlock(Bytes const& content) {
        auto* const block = new std::byte[content.size() + 1];
        std::copy(content.begin(), content.end(), block);
        auto const free = [this, block, n = content.size(), deleter = deleters,
                           owner = owners](void* p) mutable {
            SAME(p, block);
            owner.reset();
            release(block, n + 1);
        };
        return {ByteBuffer::Block(block, free), content.size()};
    }

    void make(ByteBuffer& buffer, Model& model, std::size_t n) {
        std::string const content = input.fresh(n);
        Bytes own = bytes(content);
        ByteBufferView const view(own);
        Owner named{content, owners};
        auto shared = std::make_shared<Owner>(named);
        auto const never = [](void*) { std::abort(); };
        Model next{own};
        auto const fill = [&](auto made) {
            auto const check = [&, count = owners.use_count()] { SAME(owners.use_count(), count); };
            input.withFaults([&] { buffer = made(); }, check);
        };
        auto const external = [&](auto made) {
            fill(made);
            next.block = std::make_shared<Count>(expectedOwners);
        };
        input.oneOf(
            DO(fill([&] { return ByteBuffer(view); })),
            DO(fill([&] { return view.operator ByteBuffer(); })),
            DO(own.reserve(n + 3), buffer = ByteBuffer(std::move(own)), next.bytes.reserve(n + 3)),
            DO(fill([&] { return ByteBuffer(own); })), DO(buffer = ByteBuffer(std::move(own))),
            DO(fill([&] { return ByteBuffer(n); }), next = {Bytes(n)}),
            DO(buffer = ByteBuffer({nullptr, never}, n), next = {}),
            DO(buffer = ByteBuffer(ByteBuffer::Block(), n), next = {}),
            DO(ByteBuffer block = adoptBlock(own); external([&] { return std::move(block); });
               next.keepsDeleter = true),
            DO(external([&] {
                return adopt(Owner{content, owners});
            })),
            DO(external([&] { return adopt(named); })),
            DO(external([&] { return adopt(std::as_const(named)); })),
            DO(external([&] { return adopt(ByteBufferView(*shared), shared); })), DO(external([&] {
                return adopt(ByteBufferView(*shared), std::shared_ptr<Owner>(shared));
            })));
        model = std::move(next);
        SAME(named == content && shared != nullptr, true); // an owner with a name is copied
        SAME_ERROR(std::invalid_argument, "ByteBuffer needs a deleter for its block",
                   ByteBuffer(ByteBuffer::Block(&named, nullptr), n));
    }

    // A view of some of a buffer's bytes, and the bytes that it must have.
    std::pair<ByteBufferView, Model> cut(std::size_t i) {
        Bytes const& all = models[i].bytes;
        std::size_t const offset = input.length(all.size()) % (all.size() + 1);
        std::size_t const count = input.length(all.size()) % (all.size() + 1 - offset);
        ByteBufferView view = std::as_const(buffers[i]).subview(offset, count);
        auto const from = all.begin() + static_cast<std::ptrdiff_t>(offset);
        Model part{Bytes(from, from + static_cast<std::ptrdiff_t>(count))};
        inspect(view, part.bytes, "ByteBufferView");
        inspect(std::as_const(view), part.bytes, "ByteBufferView");
        return {view, part};
    }

    // Appends something to a buffer, or to a view, which makes another buffer.
    ByteBuffer append(auto& target, Model& model, std::size_t j) {
        auto const piece = cut(j);
        if (models[j].isExternal()) { // what is trimmed stays readable, through an earlier view
            std::size_t const n = input.byte() % (models[j].bytes.size() + 1);
            auto const trim = [n](auto& it) { n % 2 == 0 ? it.trimFront(n) : it.trimBack(n); };
            trim(buffers[j]), trim(models[j]);
        }
        Bytes all;
        for (Model const& each : models) {
            all.insert(all.end(), each.bytes.begin(), each.bytes.end());
        }
        std::size_t const room = model.bytes.capacity() - model.bytes.size();
        Bytes const fresh = bytes(input.fresh(input.size(room)));
        Bytes const held = models[j].bytes;
        Bytes vector = fresh;
        ByteBuffer made;
        auto const add = [&](Bytes const& bytes, bool always, auto&& argument) {
            auto const act = [&] {
                auto&& appended = target.append(std::forward<decltype(argument)>(argument));
                if constexpr (!std::is_same_v<decltype(appended), ByteBuffer&>) {
                    made = std::move(appended);
                } else {
                    SAME(&appended, &target);
                }
            };
            if constexpr (std::is_lvalue_reference_v<decltype(argument)>) {
                withFaults(act);
            } else {
                act();
            }
            if (always || !bytes.empty()) {
                model.append(bytes);
            }
        };
        std::vector<ByteBuffer> const nothing;
        input.oneOf(DO(add(all, true, buffers)), // the target is among them
                    DO(add(all, true, std::move(buffers))), DO(add({}, false, nothing)),
                    DO(add(held, false, buffers[j])), DO(add(held, false, std::move(buffers[j]))),
                    DO(add(held, false, std::as_const(buffers[j]))), DO(add(fresh, false, vector)),
                    DO(add(fresh, false, std::move(vector))),
                    DO(add(fresh, false, std::as_const(vector))), DO(add(fresh, false, fresh)),
                    DO(add(piece.second.bytes, false, piece.first)));
        SAME(vector, fresh);
        return made;
    }

    void move(ByteBuffer& from, Model& fromModel, ByteBuffer& to, Model& toModel) {
        Model movedModel = std::exchange(fromModel, {});
        if (&from == &to || input.flag()) {
            ByteBuffer moved(std::move(from));
            SAME(from.size(), 0U);
            to = std::move(moved);
        } else {
            to = std::move(from);
        }
        toModel = std::move(movedModel);
        ByteBuffer& itself = to;
        to = std::move(itself);
    }

    // Both parts are in external form and share what owns the bytes.
    void split(std::size_t i, std::size_t j, std::size_t n) {
        Model& model = models[i];
        std::size_t const size = model.bytes.size();
        ByteBuffer front;
        std::size_t made = 0;
        withFaults([&] {
            std::size_t const before = allocations();
            front = buffers[i].splitFront(n);
            made = allocations() - before;
        });
        SAME(made, n == 0 || n == size || model.isShared ? 0U : 1U); // only the first one allocates
        Model frontModel;
        if (n == size) {
            std::swap(frontModel, n == 0 ? frontModel : model);
        } else if (n != 0) {
            model.block = model.isExternal() ? model.block : std::make_shared<int>();
            model.isShared = true;
            model.keepsDeleter = false; // its owner does
            isSplit = true;
            frontModel = model;
            frontModel.place = frontModel.bytes.data();
            frontModel.trimBack(size - n);
            model.trimFront(n);
        }
        buffers[j] = std::move(front);
        models[j] = std::move(frontModel);
    }

    // Sizes and lengths that nothing has: no byte is read.
    void lie(ByteBuffer& buffer, Model& model) {
        static std::byte first{};
        std::byte* const volatile start = &first; // no compiler knows how much is there
        std::size_t const held = model.bytes.size(), size = input.length(longest - held);
        std::size_t const more = input.length(size);
        auto const lying = [&](std::size_t n) {
            return ByteBuffer(ByteBuffer::Block(start, [](void*) {}), n);
        };
        ByteBuffer liar = lying(size);
        ByteBufferView view(start, size), null(static_cast<std::byte*>(nullptr), size);
        parts(input, liar, start, size);
        parts(input, std::as_const(liar), start, size);
        parts(input, view, start, size);
        parts(input, null, nullptr, size);
        if (size >> 48 != 0) {
            auto const sum = [](std::size_t a, std::size_t b) {
                return a > longest || b > longest - a ? tooLong : refusal(a + b);
            };
            std::vector<ByteBuffer> list;
            list.push_back(lying(size));
            list.push_back(lying(more));
            Bytes const one(1);
            bool const wraps = more > longest - std::min(size, longest);
            SAME(said([&] { buffer.append(view); }), sum(size, held));
            SAME(said([&] { buffer.append(liar); }), sum(size, held));
            SAME(said([&] { buffer.append(null); }), sum(size, held));
            SAME(said([&] { buffer.append(list); }), wraps ? tooLong : sum(size + more, held));
            SAME(said([&] { liar.append(one); }), sum(size, 1));
            SAME(said([&] { liar.push_back(one[0]); }),
                 size >= longest ? tooLong : refusal(size + 1, false));
            SAME(said([&] { liar.reserve(more); }), refusal(std::max(size, more), false));
            for (auto const& message :
                 {said([&] { discard(liar.clone()); }), said([&] { discard(view.append(one)); }),
                  said([&] { ByteBuffer copy(view); }), said([&] { ByteBuffer zeros(size); })}) {
                SAME(message, refusal(size, false));
            }
            SAME(liar.size(), size);
        } else if (size != 0) {
            SAME_ERROR(std::runtime_error, incompatible, ByteBuffer(null));
            SAME_ERROR(std::runtime_error, incompatible, null.append(buffer));
            SAME_ERROR(std::runtime_error, incompatible, Bytes(null.begin(), null.end()));
            SAME_ERROR(std::runtime_error, incompatible, null.end() <=> ByteBuffer(1).begin());
            Owner named{"named", owners};
            SAME_ERROR(std::runtime_error, incompatible, adopt(null, named));
            SAME_ERROR(std::runtime_error, incompatible, adopt(null, std::move(named)));
            SAME(std::string(named), "named");
            SAME(null == null && null.begin() != null.end() && null != buffer.first(0), true);
            if (isTried(size + held)) {
                SAME_ERROR(std::runtime_error, incompatible, buffer.append(null));
                model.makeRoom(held + size); // room was made before the view was refused
            }
        }
        SAME(null == ByteBufferView(), size == 0);
        SAME(null == view || view == null, size == 0);
        null.clear();
        view.clear();
        SAME(view == null && view.data() == nullptr && view.begin() == null.end(), true);
        SAME(view.begin() == ByteBuffer().begin(), true);
        SAME(adopt(null, Owner{"not needed", owners}).empty(), true);
    }

    void step() {
        std::size_t const i = last = input.oneIn(4) ? input.below(3) : last;
        std::size_t const j = input.below(3);
        ByteBuffer& buffer = buffers[i];
        ByteBuffer& other = buffers[j];
        Model& model = models[i];
        std::size_t const size = model.bytes.size();
        std::size_t const n = input.length(input.flag() ? size : model.bytes.capacity());
        std::byte const spare{};
        std::byte const& b = other.empty() ? spare : other[n % other.size()];
        std::string const tooMany = n > size ? "Requested to remove more bytes than exist" : none;
        // With an n that is too large, an operation throws this and changes nothing.
        auto const both = [&](std::string const& error, auto act) {
            SAME(said([&] { withFaults([&] { act(buffer); }); }), error);
            error == none ? act(model) : void();
        };
        auto const reserve = [n](auto& it) { it.reserve(n); };
        auto const resize = [n](auto& it) { it.resize(n); };
        auto const splitFront = [&] {
            SAME_ERROR(std::out_of_range, tooMany, n > size ? buffer.splitFront(n) : ByteBuffer());
            n > size ? void() : split(i, j, n);
        };
        input.oneOf(DO(make(buffer, model, input.size())),
                    DO(both(tooMany, [n](auto& it) { it.trimFront(n); })),
                    DO(both(tooMany, [n](auto& it) { it.trimBack(n); })),
                    DO(isTried(n) ? both(refusal(std::max(n, size), false), reserve) : void()),
                    DO(isTried(n) ? both(refusal(n), resize) : void()),
                    DO(both(none, [](auto& it) { it.clear(); })),
                    DO(withFaults([&] { buffer = other.clone(); }); model = {models[j].bytes}),
                    DO(move(other, models[j], buffer, model)),
                    DO(std::swap(buffer, other), std::swap(model, models[j])),
                    DO(auto const copy = b; withFaults([&] { buffer.push_back(b); });
                       model.push_back(copy)),
                    DO(both(none, [](auto& it) { it.push_back(std::byte{}); })),
                    DO(append(buffer, model, j)),
                    DO(make(buffer, model, input.size()), check(), append(buffer, model, i)),
                    DO(auto part = cut(i); buffer = append(part.first, part.second, j);
                       model = std::move(part.second)),
                    DO(splitFront()), DO(lie(buffer, model)), DO(walk(input, buffer.begin(), size)),
                    DO(walk(input, std::as_const(buffer).begin(), size)),
                    DO(parts(input, buffer, std::as_const(buffer).data(), size)));
        bool const isAlike = model.isExternal() == models[j].isExternal();
        if (!isAlike && !other.empty()) {
            SAME_ERROR(std::runtime_error, incompatible, buffer.end() - other.end());
            SAME(buffer.begin() == other.begin(), false);
        }
        if (!buffer.empty()) {
            SAME(ByteBufferView(buffer).end() == buffer.cend(), model.isExternal());
        }
        SAME(buffer == other, model.bytes == models[j].bytes);
    }

    void check() {
        long keptDeleters = 0;
        for (std::size_t i = 0; i < models.size(); ++i) {
            Model& model = models[i];
            inspect(buffers[i], model.bytes, "ByteBuffer");
            inspect(std::as_const(buffers[i]), model.bytes, "ByteBuffer");
            SAME(buffers[i].capacity(), model.isExternal() ? 0 : model.bytes.capacity());
            auto const* const place = std::to_address(buffers[i].begin());
            if (model.place != nullptr && model.place == model.bytes.data()) {
                SAME(place, model.bufferPlace);
            }
            model.place = model.bytes.data();
            model.bufferPlace = place;
            keptDeleters += model.keepsDeleter ? 1 : 0;
        }
        SAME(owners.use_count(), expectedOwners.use_count());
        SAME(deleters.use_count() - 1, isSplit ? deleters.use_count() - 1 : keptDeleters);
    }
};

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Run run{Input(data, size)};
    auto const isSmall = [](Model const& model) { return model.bytes.size() < Input::most; };
    while (run.input && std::ranges::all_of(run.models, isSmall)) {
        run.step();
        run.check();
    }
    run.models = {};
    run.isSplit = false;
    std::ranges::generate(run.buffers, [] { return ByteBuffer(); });
    run.check();
    return 0;
}
