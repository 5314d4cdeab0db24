// SPDX-License-Identifier: Apache-2.0
// ByteBuffer, ByteBufferView and their iterators against a plain vector for each buffer.
#include "../tests/Support.h"
#include "Input.h"

#include <array>

namespace {

using namespace tests;
using Bytes = std::vector<std::byte>;

constexpr auto incompatible = "Attempting to take difference between incompatible MessageIterators";
std::string const pastEnd = "Attempt to access position beyond the end of the ByteBuffer";

#define SAME_ERROR(Exception, message, call)                                                       \
    SAME(messageOf<Exception>([&] { static_cast<void>(call); }), message)

// What a buffer holds, and in which form. While this vector keeps its block, the buffer must too.
struct Model {
    void makeRoom(std::size_t n) {
        if (external || n > bytes.capacity()) {
            Bytes larger;
            larger.reserve(n + n / 2);
            larger.insert(larger.end(), bytes.data(), bytes.data() + std::min(n, bytes.size()));
            bytes = std::move(larger);
            external = false;
        }
    }
    void convert() {
        if (external) {
            *this = {Bytes(bytes)};
        }
    }
    void append(Bytes const& added) {
        makeRoom(bytes.size() + added.size());
        bytes.insert(bytes.end(), added.begin(), added.end());
    }
    void trimFront(std::size_t n) {
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
        bufferPlace += external ? n : 0;
    }
    void trimBack(std::size_t n) { bytes.resize(bytes.size() - n); }
    Bytes bytes{};
    bool external = false;
    std::byte const* place = nullptr; // of these bytes after the last step, and of the buffer's
    std::byte const* bufferPlace = nullptr;
};

void trim(auto& holder, Model& model, std::size_t n, bool atFront) {
    auto const from = [&](auto& bytes) { atFront ? bytes.trimFront(n) : bytes.trimBack(n); };
    if (n <= model.bytes.size()) {
        from(holder);
        from(model);
    } else {
        SAME_ERROR(std::out_of_range, "Requested to remove more bytes than exist", from(holder));
    }
}

// Bytes that adopt() takes, counted as a block is.
struct Owner : std::string {
    Owner(std::string content, Blocks& counts) : std::string(std::move(content)), blocks(&counts) {
        ++blocks->made;
    }
    Owner(Owner&& other) noexcept
        : std::string(std::move(other)), blocks(std::exchange(other.blocks, nullptr)) {}
    Owner& operator=(Owner&&) = delete;
    ~Owner() { blocks != nullptr ? ++blocks->freed : 0; }
    Blocks* blocks;
};

// Checks of what buffers and views share.
void requireSame(auto&& holder, Bytes const& bytes, std::string const& name) {
    auto const& constant = holder;
    SAME(text(ByteBufferView(holder)), text(ByteBufferView(bytes)));
    SAME(Bytes(holder.begin(), holder.end()), bytes);
    SAME(Bytes(constant.cbegin(), constant.cend()), bytes);
    SAME(holder.size(), bytes.size());
    SAME(holder.empty(), bytes.empty());
    SAME_ERROR(std::out_of_range, pastEnd + name, holder.at(bytes.size()));
    SAME_ERROR(std::out_of_range, pastEnd + name, constant.at(~std::size_t{0}));
    if (bytes.empty()) {
        SAME(constant.data(), nullptr);
        SAME(holder.data(), nullptr);
        SAME_ERROR(std::out_of_range, "ByteBuffer" + name + " is empty", holder.front());
        SAME_ERROR(std::out_of_range, "ByteBuffer" + name + " is empty", constant.front());
        return;
    }
    std::size_t const last = bytes.size() - 1;
    for (std::byte const* const place : std::initializer_list<std::byte const*>{
             &holder[last], &holder.at(last), &holder.front() + last, holder.data() + last,
             &constant[last], &constant.at(last), &constant.front() + last}) {
        SAME(place, constant.data() + last);
    }
}

// Parts of huge lengths, compared with numbers. No byte is read.
void claim(fuzz::Input& input) {
    static std::byte first{};
    std::byte* const volatile start = &first; // no compiler knows how much is there
    auto const length = [&] { return input.flag() ? input.length() : input.hugeLength(); };
    constexpr std::size_t farthest = std::size_t{1} << 40; // offset that an address allows
    std::size_t const size = input.hugeLength(), far = length(), count = length();
    std::size_t const offset = far > size ? far : far % farthest;
    auto const place = [](std::ptrdiff_t from, std::size_t n) {
        return n == 0 ? "" : std::to_string(from) + " and " + std::to_string(n) + " bytes";
    };
    auto const part = [&](std::size_t from, std::size_t n) -> std::string {
        bool const fits = from <= size && n <= size - from;
        return fits ? place(static_cast<std::ptrdiff_t>(from), n) : "Invalid range requested";
    };
    auto const same = [&](auto taken, std::string const& expected) {
        std::string shown;
        std::string const error = messageOf<std::out_of_range>([&] {
            ByteBufferView const view = taken();
            shown = place(view.data() - start, view.size());
        });
        SAME(error == "no exception" ? shown : error, expected);
    };
    auto const ask = [&](auto&& of) {
        same([&] { return of.makeView(offset, count); },
             part(offset, count == 0 ? size - offset : count));
        same([&] { return of.subview(offset, count); }, part(offset, count));
        same([&] { return of.subview(offset); }, part(offset, size - offset));
        same([&] { return of.first(count); }, part(0, count));
        if (count > size || size - count < farthest) {
            same([&] { return of.last(count); }, part(size - count, count));
        }
        std::string const tooMany = "Requested to remove more bytes than exist";
        SAME_ERROR(std::out_of_range, count > size ? tooMany : "no exception", of.trimBack(count));
        SAME(of.size(), count > size ? size : size - count);
    };
    ask(ByteBufferView(start, size));
    ask(ByteBuffer(ByteBuffer::Block(start, [](void*) {}), size));
}

struct Run {
    fuzz::Input input;
    Blocks blocks{};
    std::vector<ByteBuffer> buffers = std::vector<ByteBuffer>(3);
    std::array<Model, 3> models{};

    void make(ByteBuffer& buffer, Model& model, std::size_t n) {
        Bytes own = bytes(input.fresh(n));
        ByteBufferView const view(own);
        auto const owner = std::make_shared<Owner>(text(view), blocks);
        auto const never = [](void*) { std::abort(); };
        model = {own};
        input.oneOf(
            DO(buffer = ByteBuffer(view)), DO(buffer = view.operator ByteBuffer()),
            DO(own.reserve(n + 3), buffer = ByteBuffer(std::move(own)), model.bytes.reserve(n + 3)),
            DO(buffer = ByteBuffer(n), model = {Bytes(n)}),
            DO(buffer = ByteBuffer({nullptr, never}, n), model = {}),
            DO(buffer = blocks.adopt(text(view)), model.external = true),
            DO(buffer = adopt(Owner(text(view), blocks)), model.external = true),
            DO(buffer = adopt(ByteBufferView(*owner), owner), model.external = true));
    }

    // A view of some of a buffer's bytes, and the bytes that it must have.
    std::pair<ByteBufferView, Model> cut(std::size_t i) {
        Model part{models[i].bytes};
        std::size_t const size = part.bytes.size();
        std::size_t const offset = input.length() % (size + 2);
        std::size_t const count = input.length() % (size + 2);
        ByteBuffer const& buffer = buffers[i];
        bool const zeroIsAll = input.flag();
        auto const take = [&] {
            return zeroIsAll ? buffer.makeView(offset, count) : buffer.subview(offset, count);
        };
        if (offset + count > size) {
            SAME_ERROR(std::out_of_range, "Invalid range requested", take());
            return {};
        }
        ByteBufferView view = take();
        SAME(zeroIsAll ? view : buffer.first(offset + count).last(count), view);
        SAME(text(buffer.subview(offset)), text(buffer.makeView(offset, 0)));
        part.trimFront(offset);
        part.bytes.resize(zeroIsAll && count == 0 ? size - offset : count);
        trim(view, part, input.length() % (size + 2), input.flag());
        requireSame(view, part.bytes, "View");
        return {view, part};
    }

    // Appends something to a buffer, or to a view, which makes another buffer.
    ByteBuffer append(auto& target, Model& model, std::size_t j) {
        Bytes all, fresh = bytes(input.fresh(input.length()));
        auto const piece = cut(j);
        if (models[j].external) { // what is trimmed stays readable, through an earlier view
            std::size_t const n = fresh.size() % (models[j].bytes.size() + 1);
            trim(buffers[j], models[j], n, n % 2 == 0);
        }
        for (Model const& each : models) {
            all.insert(all.end(), each.bytes.begin(), each.bytes.end());
        }
        ByteBuffer made;
        auto const add = [&](Bytes const& bytes, bool always, auto&& argument) {
            if (always || !bytes.empty()) {
                model.append(Bytes(bytes));
            }
            auto&& appended = target.append(std::forward<decltype(argument)>(argument));
            if constexpr (!std::is_same_v<decltype(appended), ByteBuffer&>) {
                made = std::move(appended);
            }
        };
        std::vector<ByteBuffer> const none;
        input.oneOf(DO(add(all, true, buffers)), // the target is among them
                    DO(add(all, true, std::move(buffers))), DO(add({}, false, none)),
                    DO(add(models[j].bytes, false, buffers[j])),
                    DO(add(models[j].bytes, false, std::move(buffers[j]))),
                    DO(add(fresh, false, fresh)), DO(add(fresh, false, Bytes(fresh))),
                    DO(add(piece.second.bytes, false, piece.first)));
        return made;
    }

    void move(ByteBuffer& from, Model& fromModel, ByteBuffer& to, Model& toModel) {
        ByteBuffer moved(std::move(from));
        Model movedModel = std::exchange(fromModel, {});
        SAME(from.size(), 0U);
        to = std::move(moved);
        toModel = std::move(movedModel);
        ByteBuffer& itself = to;
        to = std::move(itself);
    }

    void step() {
        std::size_t const i = input.below(3);
        std::size_t const j = input.below(3);
        std::size_t const n = input.length();
        ByteBuffer& buffer = buffers[i];
        ByteBuffer& other = buffers[j];
        Model& model = models[i];
        std::byte const spare{};
        std::byte const& b = other.empty() ? spare : other[n % other.size()];
        auto part = cut(i);
        input.oneOf(
            DO(make(buffer, model, n)), DO(trim(buffer, model, n, input.flag())),
            DO(model.convert(), model.bytes.reserve(n), buffer.reserve(n)),
            DO(model.makeRoom(n), model.bytes.resize(n), buffer.resize(n)),
            DO(model.makeRoom(0), model.bytes.clear(), buffer.clear()),
            DO(buffer = other.clone(), model = {models[j].bytes}),
            DO(move(other, models[j], buffer, model)),
            DO(model.convert(), model.bytes.push_back(b), buffer.push_back(b)),
            DO(model.convert(), model.bytes.push_back(spare), buffer.push_back(std::byte{})),
            DO(append(buffer, model, j)),
            DO(make(buffer, model, n), check(), append(buffer, model, i)),
            DO(buffer = append(part.first, part.second, j), model = std::move(part.second)),
            DO(claim(input)), DO(refuse(buffer, model, n + 1)));
        if (model.external != models[j].external) {
            SAME_ERROR(std::runtime_error, incompatible, buffer.end() - other.end());
            SAME_ERROR(std::runtime_error, incompatible, buffer.end() <=> other.end());
        }
        SAME(buffer == other, model.bytes == models[j].bytes);
    }

    static void refuse(ByteBuffer& buffer, Model& model, std::size_t n) {
        constexpr std::size_t most = std::numeric_limits<std::size_t>::max();
        static std::byte foreign{};
        std::byte* const volatile elsewhere = &foreign; // no compiler knows how much is there
        for (std::size_t const tooLong : {most, most - n, most / 2 + n, most / 2 - n}) {
            SAME_ERROR(std::length_error, "vector too long", buffer.resize(tooLong));
            for (auto* const start : {buffer.data(), static_cast<std::byte*>(elsewhere)}) {
                ByteBufferView const view(start, tooLong);
                SAME_ERROR(std::length_error, "vector too long", buffer.append(view));
            }
        }
        SAME_ERROR(std::length_error, "vector too long", buffer.reserve(most / 2 + n));
        ByteBufferView const null(static_cast<std::byte*>(nullptr), n);
        SAME_ERROR(std::runtime_error, incompatible, buffer.append(null));
        model.makeRoom(model.bytes.size() + n); // room was made before the view was refused
    }

    void check() {
        int adopted = 0;
        for (std::size_t i = 0; i < models.size(); ++i) {
            Model& model = models[i];
            requireSame(buffers[i], model.bytes, "");
            SAME(buffers[i].capacity(), model.external ? 0 : model.bytes.capacity());
            auto const* const place = std::to_address(buffers[i].begin());
            if (model.place != nullptr && model.place == model.bytes.data()) {
                SAME(place, model.bufferPlace);
            }
            model.place = model.bytes.data();
            model.bufferPlace = place;
            adopted += model.external ? 1 : 0;
        }
        SAME(blocks.made - blocks.freed, adopted);
    }
};

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Run run{fuzz::Input(data, size)};
    auto const isSmall = [](Model const& model) { return model.bytes.size() < 5000; };
    while (run.input && std::ranges::all_of(run.models, isSmall)) {
        run.step();
        run.check();
    }
    run.buffers.clear();
    SAME(run.blocks.freed, run.blocks.made);
    return 0;
}
