// Where the tests find the Windows build of the driver: MME_DRIVER_SYS in
// the environment, else the `windows` preset's output in this source tree.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace imagetest {

inline std::string driverImagePath() {
    const char* env = std::getenv("MME_DRIVER_SYS");
    return env && *env ? env : MME_WINDOWS_SYS;
}

// False when there is no such file (no Windows build here).
inline bool readDriverImage(std::vector<uint8_t>* bytes) {
    std::ifstream in(driverImagePath(), std::ios::binary);
    if (!in)
        return false;
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !bytes->empty();
}

} // namespace imagetest
