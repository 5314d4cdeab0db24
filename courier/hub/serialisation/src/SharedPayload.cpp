// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/SharedPayload.h>

#include <stdexcept>

namespace courier::hub::serialisation {

GenericPayloadWrapperRefCount::GenericPayloadWrapperRefCount()
    : sentinel_(std::make_shared<Sentinel>()) {}

GenericPayloadWrapperRefCount::~GenericPayloadWrapperRefCount() { sentinel_->notify(); }

void GenericPayloadWrapperRefCount::addRef() {
    std::lock_guard const lock(mutex_);
    ++count_;
}

void GenericPayloadWrapperRefCount::release() noexcept { release(1); }

void GenericPayloadWrapperRefCount::release(std::uint32_t references) noexcept {
    {
        std::lock_guard const lock(mutex_);
        count_ -= references;
        if (count_ != 0) {
            return;
        }
    }
    // After the unlock, because the mutex is destroyed with the object. No other reference is left,
    // so no other thread can reach it.
    delete this;
}

std::shared_ptr<Sentinel> GenericPayloadWrapperRefCount::getSentinel() const { return sentinel_; }

GenericPayloadWrapper::GenericPayloadWrapper(core::GenericPayload&& payload)
    : payload_(std::move(payload)) {}

GenericPayloadWrapper::~GenericPayloadWrapper() = default;

void GenericPayloadView::throwNoPayload() {
    throw std::out_of_range("GenericPayloadView has no payload");
}

} // namespace courier::hub::serialisation
