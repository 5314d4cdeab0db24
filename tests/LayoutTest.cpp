// SPDX-License-Identifier: Apache-2.0
// The layout that programs compile in. If it changes, so does the ABI. The order of private members
// is not seen here.
#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>

#include <cstddef>
#if defined(__x86_64__) && defined(__linux__) && defined(__GLIBCXX__)

namespace courier::hub::serialisation {

template <std::size_t Size, class... T>
constexpr bool are = ((sizeof(T) == Size && alignof(T) == 8) && ...);

static_assert(are<8, ByteStreamImpl, ByteStream, SerialisationCatalogue>);
static_assert(are<16, ByteBufferView, ByteBufferIterator<std::byte>, GenericPayloadView>);
static_assert(are<16, Catalogue, Module, stop_source, stop_token>);
static_assert(are<24, ByteStreamIterator> && are<40, ByteStreamCharIterator>);
static_assert(are<64, ByteBuffer, detail::ReadOnlyStreambuf>);
static_assert(are<72, ByteBufferIStreambuf, ByteBufferOStreambuf, GenericPayloadWrapperRefCount>);
static_assert(are<80, NonOwningByteBufferViewIStreambuf> && are<88, ByteBufferByteStreamImpl>);
static_assert(are<32, DeferredSerialiser> && are<56, LookUpError> && are<112, Sentinel>);
static_assert(are<104, GenericDeserialiser> && are<136, GenericSerialiser>);
static_assert(are<144, Deserialiser> && are<160, Serialiser> && are<256, GenericPayloadWrapper>);
static_assert(are<344, ByteBufferOStream> && are<352, ByteBufferIStream>);
static_assert(are<360, StoppableOStream>);

using core::GenericPayload;
static_assert(are<184, GenericPayload> && offsetof(GenericPayload, typeIDs) == 0);
static_assert(offsetof(GenericPayload, values) == 24 && offsetof(GenericPayload, callables) == 48);
static_assert(offsetof(GenericPayload, objects) == 72 && offsetof(GenericPayload, flags) == 96);
static_assert(offsetof(GenericPayload, moreFlags) == 136);
static_assert(offsetof(GenericPayload, elementCount) == 176);
static_assert(offsetof(GenericPayloadView, index) == 0);
static_assert(offsetof(GenericPayloadView, wrapper) == 8);

} // namespace courier::hub::serialisation

#endif
