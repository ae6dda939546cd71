// The image loader on the shipped .sys: it maps with each section's own
// protection and binds every import; damaged copies of the same bytes are
// refused with their reason, never a crash.
#include "host/image/Exports.h"
#include "host/image/PeImage.h"
#include "support/DriverImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

uint32_t rd32(const Bytes& b, size_t at) {
    uint32_t v;
    std::memcpy(&v, &b[at], 4);
    return v;
}
void wr16(Bytes& b, size_t at, uint16_t v) {
    std::memcpy(&b[at], &v, 2);
}
void wr32(Bytes& b, size_t at, uint32_t v) {
    std::memcpy(&b[at], &v, 4);
}

// Offsets into a PE file, located from its own headers.
struct Pe {
    const Bytes& b;
    size_t coff() const { return rd32(b, 0x3c) + 4; }
    size_t opt() const { return coff() + 20; }
    size_t directory(int i) const { return opt() + 112 + 8 * i; }
    size_t sectionHeader(int i) const {
        return opt() + (b[coff() + 16] | b[coff() + 17] << 8) + 40 * i;
    }
    size_t fileOffset(uint32_t rva) const {
        for (int i = 0; i < (b[coff() + 2] | b[coff() + 3] << 8); ++i) {
            const size_t h = sectionHeader(i);
            const uint32_t va = rd32(b, h + 12), raw = rd32(b, h + 20);
            if (rva >= va && rva < va + rd32(b, h + 16))
                return raw + (rva - va);
        }
        ADD_FAILURE() << "rva " << rva << " is in no section";
        return 0;
    }
    size_t find(const std::string& text) const {
        auto it = std::search(b.begin(), b.end(), text.begin(), text.end());
        EXPECT_NE(it, b.end()) << text;
        return it - b.begin();
    }
};

// Protection of the page holding p, as /proc/self/maps shows it ("r-x").
std::string protection(const void* p) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    const auto a = reinterpret_cast<uintptr_t>(p);
    while (std::getline(maps, line)) {
        std::istringstream in(line);
        uintptr_t from, to;
        char dash;
        std::string perms;
        in >> std::hex >> from >> dash >> to >> perms;
        if (a >= from && a < to)
            return perms.substr(0, 3);
    }
    return "unmapped";
}

class ImageLoader : public ::testing::Test {
protected:
    void SetUp() override {
        if (!imagetest::readDriverImage(&file))
            GTEST_SKIP() << "no Windows build: " << imagetest::driverImagePath();
    }
    std::unique_ptr<hostimg::LoadedImage> load(const Bytes& bytes, std::string* error) {
        return hostimg::LoadedImage::load(bytes, &hostimg::hostExport, error);
    }
    Bytes file;
};

TEST_F(ImageLoader, MapsTheShippedDriverWithSectionProtectionsAndBoundImports) {
    std::string error;
    auto image = load(file, &error);
    ASSERT_TRUE(image) << error;

    const std::map<std::string, std::string> expected = {
        {".text", "r-x"}, {".rdata", "r--"}, {".data", "rw-"}, {".pdata", "r--"}};
    for (const auto& s : image->layout().sections) {
        if (expected.count(s.name)) {
            EXPECT_EQ(protection(image->base() + s.rva), expected.at(s.name)) << s.name;
        }
    }
    EXPECT_EQ(protection(image->base()), "r--") << "headers";
    EXPECT_EQ(protection(image->entryPoint()), "r-x");

    // Every import slot holds the host's export of that name.
    ASSERT_FALSE(image->imports().empty());
    bool sawPortCls = false;
    for (const auto& i : image->imports()) {
        void* slot;
        std::memcpy(&slot, image->base() + i.slotRva, sizeof slot);
        EXPECT_EQ(slot, hostimg::hostExport(i.dll, i.name)) << i.dll << "!" << i.name;
        sawPortCls = sawPortCls || i.dll == "portcls.sys";
    }
    EXPECT_TRUE(sawPortCls);

    // Loaded twice, from the file, the copies live apart: relocated.
    auto second =
        hostimg::LoadedImage::loadFile(imagetest::driverImagePath(), &hostimg::hostExport, &error);
    ASSERT_TRUE(second) << error;
    EXPECT_NE(second->base(), image->base());
    EXPECT_FALSE(
        hostimg::LoadedImage::loadFile("/nonexistent/x.sys", &hostimg::hostExport, &error));
    EXPECT_EQ(error, "/nonexistent/x.sys: cannot open");
}

TEST_F(ImageLoader, RefusesDamagedCopiesWithTheirReason) {
    const struct {
        const char* what;
        std::function<void(Bytes&, const Pe&)> apply;
        const char* reason;
    } damages[] = {
        {"cut inside the DOS header", [](Bytes& b, const Pe&) { b.resize(0x30); },
         "not a PE image: no MZ header"},
        {"cut inside the optional header", [](Bytes& b, const Pe& pe) { b.resize(pe.opt() + 100); },
         "does not fit the file"},
        {"cut inside the section table",
         [](Bytes& b, const Pe& pe) { b.resize(pe.sectionHeader(2)); },
         "lies outside the file or the image"},
        {"cut in half", [](Bytes& b, const Pe&) { b.resize(b.size() / 2); },
         "lies outside the file of"},
        {"a 32-bit machine", [](Bytes& b, const Pe& pe) { wr16(b, pe.coff(), 0x14c); },
         "machine 0x14c is not x86-64"},
        {"a PE32 optional header", [](Bytes& b, const Pe& pe) { wr16(b, pe.opt(), 0x10b); },
         "is not PE32+"},
        {"a user-mode subsystem", [](Bytes& b, const Pe& pe) { wr16(b, pe.opt() + 68, 3); },
         "subsystem 3 is not native"},
        {"sections not on pages", [](Bytes& b, const Pe& pe) { wr32(b, pe.opt() + 32, 0x200); },
         "section alignment 0x200"},
        {"an import the host lacks",
         [](Bytes& b, const Pe& pe) { b[pe.find(std::string("KeSetTimer") + '\0') + 9] = 'X'; },
         "import ntoskrnl.exe!KeSetTimeX is not provided by the host"},
        {"a DLL the host lacks",
         [](Bytes& b, const Pe& pe) { b[pe.find("portcls.sys") + 6] = 'z'; },
         "import portclz.sys!"},
        {"an import directory past the image",
         [](Bytes& b, const Pe& pe) { wr32(b, pe.directory(1), 0x7ffff000); },
         "import directory lies outside the image"},
        {"a 32-bit relocation type",
         [](Bytes& b, const Pe& pe) {
             const size_t at = pe.fileOffset(rd32(b, pe.directory(5))) + 8;
             b[at + 1] = uint8_t((b[at + 1] & 0x0f) | 0x30);
         },
         "relocation type 3"},
        {"a relocation page past the image",
         [](Bytes& b, const Pe& pe) {
             wr32(b, pe.fileOffset(rd32(b, pe.directory(5))), 0x7fff0000);
         },
         "relocation target 0x7fff"},
        {"an entry point in data",
         [](Bytes& b, const Pe& pe) { wr32(b, pe.opt() + 16, rd32(b, pe.sectionHeader(1) + 12)); },
         "is not in a code section"},
    };
    for (const auto& d : damages) {
        Bytes copy = file;
        d.apply(copy, Pe{copy});
        std::string error;
        EXPECT_FALSE(load(copy, &error)) << d.what;
        EXPECT_NE(error.find(d.reason), std::string::npos)
            << d.what << ": \"" << error << "\" lacks \"" << d.reason << "\"";
    }
}

} // namespace
