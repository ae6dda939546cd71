// Fuzzes whole device lives: each input is a program of client, USB-driver,
// plug-and-play and host events run on the linked driver (see DeviceLife.h
// for the events and what is checked after each).
#include "DeviceLife.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::Input in(data, size);
    devicelife::Life life;
    life.run(in);
    return 0;
}
