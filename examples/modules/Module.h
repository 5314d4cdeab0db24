// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_MODULE_H
#define COURIER_EXAMPLES_MODULE_H

#include <courier/hub/serialisation/Catalogue.h>

/// The one function that a module exports: registers all its records with the catalogue.
///
/// A module stays loaded until the catalogue, what it handed out and the elements that were read
/// are gone: their code is in the module. For the same reason only exceptions of the standard
/// library's own types leave a module, so that whoever catches one may unload the module first.
extern "C" [[gnu::visibility("default")]] void
courier_register_module(courier::hub::serialisation::Catalogue& catalogue);

namespace courier::examples {

using RegisterModule = decltype(courier_register_module);
inline constexpr char registerModuleName[] = "courier_register_module";

} // namespace courier::examples

#endif
