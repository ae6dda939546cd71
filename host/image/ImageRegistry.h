// Address ranges of the images loaded now, readable from a signal handler
// (a fixed table of atomics, no lock, no allocation).
#pragma once

#include <cstddef>
#include <cstdint>

namespace hostimg {

class LoadedImage;

// False when the table is full (the image could not have its traps). size
// covers the image and the thunks after it.
bool registerImage(const uint8_t* base, size_t size, const LoadedImage* owner);
constexpr size_t kMaxLoadedImages = 32;
void unregisterImage(const uint8_t* base);
// Base (and size) of the loaded image holding address, or null.
const uint8_t* imageHolding(uintptr_t address, size_t* size);
// The loaded image holding address, or null.
const LoadedImage* imageOwning(uintptr_t address);

} // namespace hostimg
