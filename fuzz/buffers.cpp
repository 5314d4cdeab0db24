// SPDX-License-Identifier: Apache-2.0
// ByteBuffer, ByteBufferView and their iterators against a plain vector for each buffer.
#include "../tests/Support.h"
#include "Input.h"

#include <array>

namespace {

using namespace tests;
using fuzz::require;
using Bytes = std::vector<std::byte>;

constexpr auto incompatible = "Attempting to take difference between incompatible MessageIterators";
std::string const pastEnd = "Attempt to access position beyond the end of the ByteBuffer";

template <class Exception> void requireError(std::string const& message, auto action) {
    require(messageOf<Exception>(action) == message);
}

// What a buffer holds and in which form. While this vector stays where it is, the buffer's must.
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
        requireError<std::out_of_range>("Requested to remove more bytes than exist",
                                        [&] { from(holder); });
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

// What buffers and views have in common.
void requireSame(auto&& holder, Bytes const& bytes, std::string const& name) {
    auto const& constant = holder;
    require(std::ranges::equal(holder, bytes) && std::ranges::equal(constant, bytes));
    require(holder.size() == bytes.size() && holder.empty() == bytes.empty());
    requireError<std::out_of_range>(pastEnd + name, [&] { discard(holder.at(bytes.size())); });
    if (bytes.empty()) {
        require(constant.data() == nullptr);
        requireError<std::out_of_range>("ByteBuffer" + name + " is empty",
                                        [&] { discard(constant.front()); });
        return;
    }
    std::size_t const last = bytes.size() - 1;
    for (auto* place : {&holder[last], &holder.at(last), &holder.front() + last,
                        &holder.begin()[static_cast<std::ptrdiff_t>(last)], &*--holder.end()}) {
        require(place == constant.data() + last);
    }
}

struct Run {
    fuzz::Input input;
    Blocks blocks{};
    std::vector<ByteBuffer> buffers = std::vector<ByteBuffer>(3);
    std::array<Model, 3> models{};

    void make(ByteBuffer& buffer, Model& model, std::size_t n) {
        Bytes own = bytes(input.fresh(n));
        ByteBufferView const view(own.data(), n);
        model = {own};
        auto const never = [](void*) { std::abort(); };
        input.oneOf([&] { buffer = ByteBuffer(view); },
                    [&] { buffer = view.operator ByteBuffer(); },
                    [&] { buffer = ByteBuffer(std::move(own)); },
                    [&] { buffer = ByteBuffer(n), model = {Bytes(n)}; },
                    [&] { model = {}, buffer = ByteBuffer(ByteBuffer::Block(nullptr, never), n); },
                    [&] { buffer = adopt(Owner(text(view), blocks)), model.external = true; },
                    [&] {
                        auto const owner = std::make_shared<Owner>(text(view), blocks);
                        buffer = adopt(ByteBufferView(*owner), owner), model.external = true;
                    },
                    [&] { buffer = blocks.adopt(text(view)), model.external = true; });
    }

    // A view of some of a buffer's bytes, and what it must show.
    std::pair<ByteBufferView, Bytes> cut(std::size_t i) {
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
            requireError<std::out_of_range>("Invalid range requested", take);
            requireError<std::out_of_range>("Invalid range requested",
                                            [&] { return buffer.last(offset + count); });
            return {};
        }
        ByteBufferView view = take();
        require(zeroIsAll || view == buffer.first(offset + count).last(count));
        require(buffer.subview(offset) == buffer.makeView(offset, 0));
        part.trimFront(offset);
        part.bytes.resize(zeroIsAll && count == 0 ? size - offset : count);
        trim(view, part, input.length() % (size + 2), input.flag());
        requireSame(view, part.bytes, "View");
        return {view, part.bytes};
    }

    // Appends something of any kind to a buffer, or to a view, which makes another buffer.
    ByteBuffer append(auto& target, Model& model, std::size_t j) {
        Bytes all, fresh = bytes(input.fresh(input.length()));
        for (Model const& each : models) {
            all.insert(all.end(), each.bytes.begin(), each.bytes.end());
        }
        auto const piece = cut(j);
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
        input.oneOf([&] { add(all, true, buffers); }, // the target is among them
                    [&] { add(all, true, std::move(buffers)); },
                    [&] { add(models[j].bytes, false, buffers[j]); },
                    [&] { add(models[j].bytes, false, std::move(buffers[j])); },
                    [&] { add(fresh, false, Bytes(fresh)); },
                    [&] { add(piece.second, false, piece.first); });
        return made;
    }

    void step() {
        std::size_t const i = input.below(3);
        std::size_t const j = input.below(3);
        std::size_t const n = input.length();
        ByteBuffer& buffer = buffers[i];
        ByteBuffer& other = buffers[j];
        Model& model = models[i];
        input.oneOf([&] { make(buffer, model, n); }, [&] { trim(buffer, model, n, input.flag()); },
                    [&] {
                        if (std::exchange(model.external, false)) {
                            model.bytes = Bytes(model.bytes);
                        }
                        model.bytes.reserve(n), buffer.reserve(n);
                    },
                    [&] { model.makeRoom(n), model.bytes.resize(n), buffer.resize(n); },
                    [&] { model.makeRoom(0), model.bytes.clear(), buffer.clear(); },
                    [&] { model = {models[j].bytes}, buffer = other.clone(); },
                    [&] {
                        ByteBuffer moved(std::move(other));
                        Model movedModel = std::exchange(models[j], {});
                        require(other.empty());
                        buffer = std::move(moved);
                        model = std::move(movedModel);
                        buffer = std::move(buffers[i]); // to itself
                    },
                    [&] { // perhaps one of its own
                        std::byte const spare{};
                        std::byte const& b = other.empty() ? spare : other[n % other.size()];
                        if (model.external) {
                            model = {Bytes(model.bytes)};
                        }
                        model.bytes.push_back(b);
                        buffer.push_back(b);
                    },
                    [&] { append(buffer, model, j); },
                    [&] {
                        auto [view, part] = cut(i);
                        Model made{std::move(part)};
                        buffer = append(view, made, j);
                        model = std::move(made);
                    },
                    [&] { refuse(buffer, model, n + 1); });
        if (model.external != models[j].external) {
            requireError<std::runtime_error>(incompatible,
                                             [&] { return buffer.end() - other.end(); });
        }
    }

    static void refuse(ByteBuffer& buffer, Model& model, std::size_t n) {
        constexpr std::size_t most = std::numeric_limits<std::size_t>::max();
        for (std::size_t const tooLong : {most, most - n, most / 2 - n}) {
            ByteBufferView const view(buffer.makeView(0, 0).data(), tooLong);
            requireError<std::length_error>("vector too long", [&] { buffer.resize(tooLong); });
            requireError<std::length_error>("vector too long", [&] { buffer.append(view); });
        }
        ByteBufferView const null(static_cast<std::byte*>(nullptr), n);
        requireError<std::runtime_error>(incompatible, [&] { buffer.append(null); });
        model.makeRoom(model.bytes.size() + n); // the block went before the view was looked at
    }

    void check() {
        int adopted = 0;
        for (std::size_t i = 0; i < models.size(); ++i) {
            Model& model = models[i];
            requireSame(buffers[i], model.bytes, "");
            require(buffers[i].capacity() == (model.external ? 0 : model.bytes.capacity()));
            auto const* const place = std::to_address(buffers[i].begin());
            bool const stays = model.place != nullptr && model.place == model.bytes.data();
            require(!stays || model.bufferPlace == place);
            model.place = model.bytes.data();
            model.bufferPlace = place;
            adopted += model.external ? 1 : 0;
        }
        require(blocks.made - blocks.freed == adopted);
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
    require(run.blocks.freed == run.blocks.made);
    return 0;
}
