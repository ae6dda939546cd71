// The started driver on the model USB driver, for tests of the emulated DMA
// channels and the period transfer: the wave layer's StackRig.
#pragma once

#include "support/WaveRig.h"

namespace streamtest {
using StreamingRig = wavetest::StackRig;
} // namespace streamtest
