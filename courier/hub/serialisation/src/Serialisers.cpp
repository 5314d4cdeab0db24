// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Serialisers.h>

#include <ostream>
#include <system_error>

namespace courier::hub::serialisation {

void throwIfStopped(stop_token const& token) {
    if (token.stop_requested()) {
        throw std::system_error(std::make_error_code(std::errc::operation_canceled));
    }
}

// GenericSerialiser

GenericSerialiser::GenericSerialiser()
    : routine_([](stop_token, std::ostream& out) { out.flush(); }) {}

GenericSerialiser& GenericSerialiser::operator=(GenericSerialiser&& other) {
    GenericSerialiser taken(std::move(other));
    std::lock_guard const lock(guard_);
    std::swap(routine_, taken.routine_);
    std::swap(stopSource_, taken.stopSource_);
    std::swap(text_, taken.text_);
    std::swap(handle_, taken.handle_);
    return *this;
}

void GenericSerialiser::operator()(std::ostream& out) const& {
    routine_(stopSource_.get_token(), out);
}

void GenericSerialiser::operator()(stop_token token, std::ostream& out) const& {
    routine_(std::move(token), out);
}

void GenericSerialiser::operator()(std::ostream& out) && {
    std::move(*this).operator()(stopSource_.get_token(), out);
}

void GenericSerialiser::operator()(stop_token token, std::ostream& out) && {
    Routine const released = std::exchange(routine_, nullptr);
    released(std::move(token), out);
}

// GenericDeserialiser

GenericDeserialiser::GenericDeserialiser(GenericDeserialiser const& other)
    : GenericDeserialiser(other, std::shared_lock(other.guard_)) {}

GenericDeserialiser::GenericDeserialiser(GenericDeserialiser const& other,
                                         std::shared_lock<std::shared_mutex> const&)
    : routine_(other.routine_), handle_(other.handle_) {}

GenericDeserialiser::GenericDeserialiser(GenericDeserialiser&& other)
    : GenericDeserialiser(std::move(other), std::lock_guard(other.guard_)) {}

GenericDeserialiser::GenericDeserialiser(GenericDeserialiser&& other,
                                         std::lock_guard<std::shared_mutex> const&)
    : routine_(std::exchange(other.routine_, nullptr)), handle_(std::move(other.handle_)) {}

GenericDeserialiser& GenericDeserialiser::operator=(GenericDeserialiser const& other) {
    if (this != &other) {
        routine_ = other.routine_;
        std::shared_ptr<void> former; // released without a lock
        std::shared_lock const source(other.guard_);
        std::lock_guard const target(guard_);
        former = std::exchange(handle_, other.handle_);
    }
    return *this;
}

GenericDeserialiser& GenericDeserialiser::operator=(GenericDeserialiser&& other) {
    if (this != &other) {
        routine_ = nullptr; // destroys the old routine before it takes the new one over
        routine_ = std::exchange(other.routine_, nullptr);
        std::shared_ptr<void> former;
        std::lock_guard const source(other.guard_);
        std::lock_guard const target(guard_);
        former = std::exchange(handle_, std::move(other.handle_));
    }
    return *this;
}

core::GenericPayload GenericDeserialiser::operator()(std::istream& in) const {
    return routine_(in);
}

// DeferredSerialiser

DeferredSerialiser::DeferredSerialiser() : routine_([](std::ostream&) {}) {}

DeferredSerialiser::DeferredSerialiser(Routine routine) : routine_(std::move(routine)) {}

DeferredSerialiser::DeferredSerialiser(DeferredSerialiser const& other) = default;
DeferredSerialiser::DeferredSerialiser(DeferredSerialiser&& other) noexcept = default;
DeferredSerialiser& DeferredSerialiser::operator=(DeferredSerialiser const& other) = default;

DeferredSerialiser& DeferredSerialiser::operator=(DeferredSerialiser&& other) noexcept {
    if (this != &other) { // a std::function may lose its target when it is moved to itself
        routine_ = std::move(other.routine_);
    }
    return *this;
}

DeferredSerialiser::~DeferredSerialiser() = default;

void DeferredSerialiser::operator()(std::ostream& out) const { routine_(out); }

// Serialiser

Serialiser::Serialiser(std::string wireFormat, std::uint64_t typeID,
                       std::vector<std::uint64_t> typeIDs, ViewFactory viewFactory,
                       CancellableViewFactory cancellableViewFactory,
                       PayloadFactory payloadFactory) noexcept
    : wireFormat_(std::move(wireFormat)), typeID_(typeID), typeIDs_(std::move(typeIDs)),
      viewFactory_(std::move(viewFactory)),
      cancellableViewFactory_(std::move(cancellableViewFactory)),
      payloadFactory_(std::move(payloadFactory)) {}

Serialiser::Serialiser(Serialiser const& other) = default;

Serialiser::Serialiser(Serialiser&& other) noexcept
    : wireFormat_(std::exchange(other.wireFormat_, {})), typeID_(other.typeID_),
      typeIDs_(std::exchange(other.typeIDs_, {})),
      viewFactory_(std::exchange(other.viewFactory_, nullptr)),
      cancellableViewFactory_(std::exchange(other.cancellableViewFactory_, nullptr)),
      payloadFactory_(std::exchange(other.payloadFactory_, nullptr)) {}

Serialiser& Serialiser::operator=(Serialiser const& other) = default;

Serialiser& Serialiser::operator=(Serialiser&& other) noexcept {
    Serialiser taken(std::move(other));
    std::swap(wireFormat_, taken.wireFormat_);
    std::swap(typeID_, taken.typeID_);
    std::swap(typeIDs_, taken.typeIDs_);
    std::swap(viewFactory_, taken.viewFactory_);
    std::swap(cancellableViewFactory_, taken.cancellableViewFactory_);
    std::swap(payloadFactory_, taken.payloadFactory_);
    return *this;
}

Serialiser::~Serialiser() = default;

std::string Serialiser::getWireFormat() const { return wireFormat_; }

std::uint64_t Serialiser::getTypeID() const noexcept { return typeID_; }

std::vector<std::uint64_t> Serialiser::getTypeIDs() const { return typeIDs_; }

GenericSerialiser Serialiser::getSerialiser(GenericPayloadView&& view) const {
    return viewFactory_(std::move(view));
}

GenericSerialiser Serialiser::getSerialiser(GenericPayloadView&& view,
                                            stop_source&& stopSource) const {
    return cancellableViewFactory_(std::move(view), std::move(stopSource));
}

GenericSerialiser Serialiser::getSerialiser(core::GenericPayload&& payload) const {
    return payloadFactory_(std::move(payload));
}

// Deserialiser

Deserialiser::Deserialiser(std::string wireFormat, std::uint64_t typeID,
                           GenericDeserialiser deserialiser)
    : wireFormat_(std::move(wireFormat)), typeID_(typeID), deserialiser_(std::move(deserialiser)) {}

Deserialiser::Deserialiser(Deserialiser const& other) = default;
Deserialiser::Deserialiser(Deserialiser&& other) = default;

Deserialiser& Deserialiser::operator=(Deserialiser const& other) {
    if (this != &other) {
        std::string wireFormat = other.wireFormat_; // copied first, because it may throw
        deserialiser_ = other.deserialiser_;
        wireFormat_.swap(wireFormat);
        typeID_ = other.typeID_;
    }
    return *this;
}

Deserialiser& Deserialiser::operator=(Deserialiser&& other) {
    if (this != &other) { // a std::string may be emptied when it is moved to itself
        wireFormat_ = std::move(other.wireFormat_);
        typeID_ = other.typeID_;
        deserialiser_ = std::move(other.deserialiser_);
    }
    return *this;
}

Deserialiser::~Deserialiser() = default;

std::string Deserialiser::getWireFormat() const { return wireFormat_; }

std::uint64_t Deserialiser::getTypeID() const noexcept { return typeID_; }

GenericDeserialiser Deserialiser::getDeserialiser() const { return deserialiser_; }

} // namespace courier::hub::serialisation
