// Replays device-life programs (fuzz_device_life's inputs: a crash, a
// minimised case, the seed corpus) outside libFuzzer, on the linked driver
// or, with --driver, on the .sys image under the host's special pool.
//   device_life_replay [--driver PATH.sys] FILE|DIRECTORY...
// Exit 0 when every program passed its checks; a failed check prints what
// went wrong and aborts; 2 for bad usage or an unreadable file; 77 when the
// image named is not there (CTest counts that as skipped).
#include "DeviceLife.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    std::string image;
    std::vector<fs::path> programs;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--driver" && i + 1 < argc) {
            image = argv[++i];
        } else if (!arg.empty() && arg[0] == '-') {
            std::fprintf(stderr, "usage: %s [--driver PATH.sys] FILE|DIRECTORY...\n", argv[0]);
            return 2;
        } else if (fs::is_directory(arg)) {
            for (const auto& entry : fs::directory_iterator(arg))
                if (entry.is_regular_file())
                    programs.push_back(entry.path());
        } else {
            programs.push_back(arg);
        }
    }
    if (programs.empty()) {
        std::fprintf(stderr, "%s: no programs to replay\n", argv[0]);
        return 2;
    }
    if (!image.empty() && !fs::exists(image)) {
        std::printf("no driver image at %s: nothing replayed\n", image.c_str());
        return 77;
    }
    std::sort(programs.begin(), programs.end());
    for (const fs::path& path : programs) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], path.c_str());
            return 2;
        }
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
        std::printf("%s (%zu bytes)\n", path.filename().c_str(), bytes.size());
        std::fflush(stdout);
        fuzzsupport::Input in(bytes.data(), bytes.size());
        devicelife::Life(image).run(in);
    }
    std::printf("%zu programs replayed on the %s, every check passed\n", programs.size(),
                image.empty() ? "linked driver" : "driver image");
    return 0;
}
