// SPDX-License-Identifier: Apache-2.0
// The samples of docs/guides/costs.md: counts what is allocated.

#include <courier/hub/serialisation/Registration.h>
#include <courier/hub/serialisation/Streams.h>

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <utility>

using namespace courier::hub::serialisation;

namespace {

std::size_t allocations = 0;

// Prints how many allocations the work makes.
template <class Work> void count(char const* name, Work work) {
    std::size_t const before = allocations;
    work();
    std::cout << name << ": " << allocations - before << '\n';
}

} // namespace

// Not inlined, or the compiler would see that memory from new is freed by free().
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* const block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

int main() {
    static char received[65536];
    ByteBuffer buffer;
    count("adopt, trim and move on", [&] {
        ByteBuffer block({received, [](void*) {}}, sizeof(received)); // static: never freed
        block.trimFront(16);
        buffer = std::move(block);
    });
    count("read in place", [&] {
        NonOwningByteBufferViewIStreambuf source(buffer);
        char header[32];
        source.sgetn(header, sizeof(header));
    });
    std::byte const* const adopted = buffer.data();
    buffer.append(buffer.first(1));
    std::cout << "append to an adopted block: "
              << (buffer.data() == adopted ? "in place\n" : "copied\n");

    Catalogue catalogue;
    constexpr auto id = courier::hub::core::getTypeID<int>();
    std::string const format = "a wire format with a long name";
    addReader<int>(catalogue, format, [](std::istream&) { return 1; });
    count("ask", [&] { static_cast<void>(catalogue.hasDeserialiserFor(format, id)); });
    GenericDeserialiser const kept = catalogue.getDeserialiserFor(format, id); // once, and kept
}
