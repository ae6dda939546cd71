// Address ranges of the images loaded now, readable from a signal handler
// (a fixed table of atomics, no lock, no allocation).
#pragma once

#include <cstddef>
#include <cstdint>

namespace hostimg {

// False when the table is full (the image could not have its traps).
bool registerImage(const uint8_t* base, size_t size);
constexpr size_t kMaxLoadedImages = 32;
void unregisterImage(const uint8_t* base);
// Base (and size) of the loaded image holding address, or null.
const uint8_t* imageHolding(uintptr_t address, size_t* size);

} // namespace hostimg
