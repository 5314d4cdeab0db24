// SPDX-License-Identifier: Apache-2.0
// tests/gdb/check.py inspects this program through gdb when it calls look().
#include <courier/hub/serialisation/Buffers.h>
#include <courier/hub/serialisation/SharedPayload.h>

using namespace courier::hub::serialisation;

struct Price {
    int cents;
};

[[gnu::noinline]] static void look(void const* at) { asm volatile("" : : "r"(at) : "memory"); }

int main() {
    std::string text = "hello, \"world\"\n and more";
    ByteBufferView const view(text);
    ByteBuffer const vectorForm(view);
    ByteBuffer const externalForm(ByteBuffer::Block(text.data(), [](void*) {}), 1);
    ByteBuffer const empty;
    courier::hub::core::GenericPayload payload;
    payload.add(std::make_shared<Price>(Price{1999}));
    payload.add(std::shared_ptr<int>(std::make_unique<int>(42)));
    payload.add(std::shared_ptr<Price>());
    payload.elementCount = 2;
    Sentinel const unreleased;
    Sentinel released;
    released.notify();
    for (int const fill : {0x7F, 0xA5, 0xFF}) {
        alignas(16) unsigned char garbage[256];
        for (std::size_t i = 0; i < sizeof(garbage); ++i) {
            garbage[i] = static_cast<unsigned char>(fill - static_cast<int>(i / 8));
        }
        look(garbage);
    }
}
