// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_MODULES_MODULE_H
#define COURIER_EXAMPLES_MODULES_MODULE_H

#include <courier/hub/serialisation/Catalogue.h>

#include <cstdint>

/// The one function that a module exports. It registers the module's formats with the catalogue.
/// Their readers throw std::length_error when one element would take more than `readLimit` bytes of
/// memory.
///
/// A module must stay loaded until the catalogue, everything that it returned and the elements that
/// were read are destroyed: their code is in the module. For the same reason a module throws only
/// exceptions of the standard library, so that whoever catches one may unload the module first.
extern "C" [[gnu::visibility("default")]] void
courier_register_module(courier::hub::serialisation::Catalogue& catalogue, std::uint64_t readLimit);

namespace courier::examples {

using RegisterModule = decltype(courier_register_module);
inline constexpr char registerModuleName[] = "courier_register_module";

} // namespace courier::examples

#endif
