// Where the tests find the Windows builds: the driver image MME_DRIVER_IMAGE
// names, else the `windows` preset's output, where the probe image is too.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace imagetest {

inline std::string windowsBuildFile(const std::string& name) {
#ifdef MME_NO_IMAGES
    return "(no image in sanitizer builds)/" + name;
#else
    return std::string(MME_WINDOWS_BUILD_DIR) + "/" + name;
#endif
}

inline std::string driverImagePath() {
    const char* env = std::getenv("MME_DRIVER_IMAGE");
    return env && *env ? env : windowsBuildFile("mmeusbaudio.sys");
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
