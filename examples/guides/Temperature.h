// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_GUIDES_TEMPERATURE_H
#define COURIER_EXAMPLES_GUIDES_TEMPERATURE_H

/// The element type that module.cpp and host.cpp share.
struct Temperature {
    double celsius;
};

#endif
