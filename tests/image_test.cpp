// The driver's Windows image on the host: the loader, the processor state and DbgPrint an image
// sees (the probe image), and the linked driver and the image living the same life.
#include "host/image/Exports.h"
#include "host/image/PeImage.h"
#include "host/image/Processor.h"
#include "support/DriverImage.h"
#include "support/E2eRig.h"
#include "usbsim/Backends.h"

#include <asm/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
using hostimg::LoadedImage;
const auto exports = &hostimg::hostExport;

// Offsets into a PE file, located from its own headers (little-endian, as is the host).
struct Pe {
    Bytes& b;
    uint32_t u16(size_t i) const { return b.at(i) | b.at(i + 1) << 8; }
    uint32_t u32(size_t i) const { return u16(i) | u16(i + 2) << 16; }
    void put(size_t i, uint32_t v, size_t n = 4) { std::memcpy(&b.at(i + n - 1) - (n - 1), &v, n); }
    size_t find(const std::string& s) const { return std::string(b.begin(), b.end()).find(s); }
    size_t coff() const { return u32(0x3c) + 4; }
    size_t opt() const { return coff() + 20; }
    size_t directory(int i) const { return opt() + 112 + 8 * i; }
    size_t section(int i) const { return opt() + u16(coff() + 16) + 40 * i; }
    // The CheckSum made right again, so that only the damage meant is seen.
    void sum() {
        if (b.size() >= 0x40 && opt() + 68 <= b.size())
            put(opt() + 64, hostimg::fileChecksum(b.data(), b.size(), uint32_t(opt() + 64)));
    }
    size_t dataOf(int i) const {
        const uint32_t rva = u32(directory(i));
        size_t h = section(0);
        while (rva < u32(h + 12) || rva >= u32(h + 12) + u32(h + 16))
            h += 40;
        return u32(h + 20) + rva - u32(h + 12);
    }
};

// Protection of the page holding p, as /proc/self/maps shows it ("r-x").
std::string protection(const void* p) {
    std::ifstream maps("/proc/self/maps");
    for (std::string l; std::getline(maps, l);)
        if (uintptr_t(p) >= std::stoull(l, nullptr, 16) &&
            uintptr_t(p) < std::stoull(l.substr(l.find('-') + 1), nullptr, 16))
            return l.substr(l.find(' ') + 1, 3);
    return "unmapped";
}

TEST(ImageLoader, MapsTheDriverWithSectionProtectionsRelocatesEachCopyAndRefusesDamagedOnes) {
    Bytes file;
    if (!imagetest::readDriverImage(&file))
        GTEST_SKIP() << "no Windows build: " << imagetest::driverImagePath();
    std::string error;
    auto image = LoadedImage::load(file, exports, &error);
    ASSERT_TRUE(image) << error;
    std::string seen = "headers " + protection(image->base()) + ", ";
    for (const auto& s : image->layout().sections)
        seen += s.name + " " + protection(image->base() + s.rva) + ", ";
    for (const char* want : {"headers r--", ".text r-x", ".rdata r--", ".data rw-", ".pdata r--"})
        EXPECT_NE(seen.find(want), std::string::npos) << seen;
    auto second = LoadedImage::loadFile(imagetest::driverImagePath(), exports, &error);
    ASSERT_TRUE(second) << error;
    EXPECT_NE(second->base(), image->base()) << "the second copy is relocated";
    // The host enters the image through thunks, which its link map names.
    char entry[256] = "";
    EXPECT_FALSE(second->contains(second->entryPoint()));
    EXPECT_TRUE(second->describe(uintptr_t(second->entryPoint()), entry, sizeof entry));
    EXPECT_TRUE(std::regex_search(entry, std::regex("^entry thunk of .*\\.sys\\+0x[0-9a-f]+ "
                                                    "\\(DriverEntry\\+0x0\\)$")))
        << entry;
    EXPECT_FALSE(LoadedImage::loadFile("/nonexistent/x.sys", exports, &error));
    EXPECT_EQ(error, "/nonexistent/x.sys: cannot open");
    const std::pair<void (*)(Pe), const char*> damages[] = {
        {[](Pe p) { p.b.resize(0x30); }, "not a PE image: no MZ header"},
        {[](Pe p) { p.b.resize(p.opt() + 100); }, "does not fit the file"},
        {[](Pe p) { p.b.resize(p.section(2)); }, "lies outside the file or the image"},
        {[](Pe p) { p.b.resize(p.b.size() / 2); }, "lies outside the file of"},
        {[](Pe p) { p.put(p.coff(), 0x14c, 2); }, "machine 0x14c is not x86-64"},
        {[](Pe p) { p.put(p.opt(), 0x10b, 2); }, "is not PE32+"},
        {[](Pe p) { p.put(p.opt() + 68, 3, 2); }, "subsystem 3 is not native"},
        {[](Pe p) { p.put(p.opt() + 32, 0x200); }, "section alignment 0x200"},
        {[](Pe p) { p.b.at(p.find(std::string("KeSetTimer", 11)) + 9) = 'X'; },
         "ntoskrnl.exe!KeSetTimeX"},
        {[](Pe p) { p.b.at(p.find("portcls.sys") + 6) = 'z'; }, "import portclz.sys!"},
        {[](Pe p) { p.put(p.directory(1), 0x7ffff000); }, "import directory lies outside"},
        {[](Pe p) { p.put(p.dataOf(1) + 36, p.u32(p.dataOf(1) + 16)); }, "a slot already bound"},
        {[](Pe p) { p.put(p.dataOf(5) + 8, 0x3000, 2); }, "relocation type 3"},
        {[](Pe p) { p.put(p.dataOf(5), 0x7fff0000); }, "relocation target 0x7fff"},
        {[](Pe p) { p.put(p.opt() + 16, p.u32(p.section(1) + 12)); }, "not in a code section"},
        // What Windows, its code integrity check or memory integrity refuse.
        {[](Pe p) { p.put(p.section(0) + 36, p.u32(p.section(0) + 36) | 0x80000000); },
         "section 0 (.text) is writable and executable"},
        {[](Pe p) { p.b.at(p.u32(p.section(0) + 20)) ^= 1; }, "CheckSum"},
        {[](Pe p) { p.put(p.coff() + 18, p.u16(p.coff() + 18) | 1, 2); }, "relocations stripped"},
        {[](Pe p) { p.put(p.directory(3) + 4, 0); }, "no exception directory"},
        {[](Pe p) { p.put(p.directory(9), p.u32(p.directory(1))), p.put(p.directory(9) + 4, 40); },
         "a TLS directory"},
        {[](Pe p) { p.put(p.directory(1), p.u32(p.section(0) + 12)); },
         "import table lies inside executable section .text"},
        {[](Pe p) { p.put(p.directory(12), p.u32(p.section(0) + 12)); },
         "import address table lies inside executable section .text"},
        {[](Pe p) {
             p.put(p.directory(0), p.u32(p.section(0) + 12)), p.put(p.directory(0) + 4, 40);
         },
         "export table lies inside executable section .text"},
    };
    for (const auto& [damage, reason] : damages) {
        Bytes copy = file;
        damage(Pe{copy});
        if (std::string(reason) != "CheckSum")
            Pe{copy}.sum();
        EXPECT_FALSE(LoadedImage::load(copy, exports, &error)) << reason;
        EXPECT_NE(error.find(reason), std::string::npos) << error << " lacks " << reason;
    }
}

std::string threadLine(const void* thread) {
    char text[40];
    std::snprintf(text, sizeof text, "probe thread %016llX", (unsigned long long)(uintptr_t)thread);
    return text;
}

class ImageProbe : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        image = LoadedImage::loadFile(imagetest::windowsBuildFile("mmeprobe.sys"), exports, &error);
        if (!image)
            GTEST_SKIP() << "no probe image: " << error;
        hostimg::enableProcessorState();
    }
    Lines run(char16_t command) {
        hostk::clearCaptured();
        char16_t text[2] = {command, 0};
        UNICODE_STRING path = {2, 4, text};
        using Entry = __attribute__((ms_abi)) NTSTATUS (*)(void*, void*);
        EXPECT_EQ(reinterpret_cast<Entry>(image->entryPoint())(nullptr, &path), STATUS_SUCCESS);
        return hostk::capturedLines();
    }
    // Whether the verifier reported one failure matching re (none for ""); clears them.
    bool reported(const std::string& re) {
        const auto f = hostk::verifierFailures();
        hostk::clearVerifierFailures();
        return f.size() == !re.empty() && (f.empty() || std::regex_search(f[0], std::regex(re)));
    }
    std::unique_ptr<LoadedImage> image;
};

TEST_F(ImageProbe, DbgPrintFormatsAsWindowsCr8IsTheThreadsIrqlAndCliIsAVerifierFailure) {
    // %ld is 32 bits on Windows: the 64-bit 0x1234567890 prints its low half.
    EXPECT_EQ(run(u'p'), Lines{"probe 878082192 fedcba9876543210 wide|"});
    EXPECT_EQ(run(u'i'), Lines{"probe irql 0 0 2 0"});
    hostk::runAtDispatch([&] { EXPECT_EQ(run(u'i'), Lines{"probe irql 2 2 2 2"}); });
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(run(u'c'), Lines{"probe after cli"});
    EXPECT_TRUE(reported("privileged instruction at .*\\): fa"));
}

// Driver Verifier's special pool, kernel stack and code integrity faults,
// made by image code and reported with where it made them.
TEST_F(ImageProbe, OverrunsUsesAfterFreeDeepStacksAndExecutablePoolAreVerifierReports) {
    hostk::setSpecialPool(hostk::SpecialPool::VerifyEnd);
    const std::pair<char16_t, const char*> faults[] = {
        {u'o', "^special pool: write at offset 16, past the end of pool block 'Pobe' of 16 bytes, "
               "allocation #[0-9]+ by mmeprobe.sys\\+0x[0-9a-f]+ .*0xCD\\)$"},
        {u'f', "^special pool: read at offset 0 of freed pool block 'Pobe' .*0xCC\\)$"},
        {u'r', "^driver stack overflow: more than 24576 bytes .* at mmeprobe.sys\\+0x"},
        {u'x', "^code integrity: .* pool type 0 from driver code at mmeprobe.sys.*0x2000\\)$"}};
    for (const auto& [command, report] : faults) {
        run(command);
        EXPECT_TRUE(reported(report)) << char(command);
    }
    EXPECT_GT(hostk::deepestDriverStack(), hostk::kDriverStackSize);
    hostk::forgetDriverStackUse(); // not the driver's
}

TEST_F(ImageProbe, GsGivesEachThreadItsOwnThreadObject) {
    const std::string mine = threadLine(KeGetCurrentThread());
    EXPECT_EQ(run(u't'), Lines{mine});
    // A thread inherits its creator's GS base: one entered as a driver thread has its own, so
    // has one whose GS base is empty (at its first read); one on its creator's block is caught.
    void (*const starts[])() = {hostk::enterDriverThread,
                                [] { syscall(SYS_arch_prctl, ARCH_SET_GS, 0UL); }, [] {}};
    for (auto start : starts) {
        const bool inherited = start == starts[2];
        Lines lines, own;
        std::thread([&] {
            start();
            own = {threadLine(KeGetCurrentThread())};
            lines = run(u't');
        }).join();
        EXPECT_NE(own, Lines{mine});
        EXPECT_EQ(lines, inherited ? Lines{mine} : own) << inherited;
        EXPECT_TRUE(reported(inherited ? "did not call hostk::enterDriverThread\\(\\)" : ""));
    }
}

// ---- The same life, linked and loaded ----

struct Life {
    std::vector<std::string> trace;
    std::vector<int32_t> played; // every sample the device played
    std::vector<uint8_t> captured;
    std::string problems;
    size_t timedStarts = 0;
};

// Empty when two traces say the same line for line, else the first
// difference. Pointers and address-like 0x-numbers may differ (the runs
// share one heap, so no mapping between their addresses holds); status
// codes and small numbers may not. The banner's build time is left out.
std::string traceDifference(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    static const std::regex token("[0-9A-F]{16}|0x[0-9A-Fa-f]+");
    static const std::regex built("built:.*");
    auto addressLike = [](const std::string& t) {
        if (t.size() == 16)
            return true;
        const unsigned long long v = std::stoull(t.substr(2), nullptr, 16);
        const unsigned high = unsigned(v >> 24);
        return v >= 0x10000 && high != 0xC0 && high != 0x80 && high != 0x40;
    };
    for (size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
        const std::string la = i < a.size() ? std::regex_replace(a[i], built, "built:") : "(end)";
        const std::string lb = i < b.size() ? std::regex_replace(b[i], built, "built:") : "(end)";
        const std::string where = "line " + std::to_string(i + 1) + ":\n  " + la + "\n  " + lb;
        std::sregex_iterator ta(la.begin(), la.end(), token), tb(lb.begin(), lb.end(), token), end;
        if (std::regex_replace(la, token, "#") != std::regex_replace(lb, token, "#"))
            return where;
        for (; ta != end && tb != end; ++ta, ++tb) {
            const std::string x = ta->str(), y = tb->str();
            if (x == y)
                continue;
            if (!addressLike(x) || !addressLike(y))
                return where + "\n  (" + x + " vs " + y + ")";
        }
    }
    return std::string();
}

Life liveWith(const std::string& image) {
    hostk::resetForTest();
    hostpc::resetForTest();
    hostpc::useDriverImage(image);
    Life run;
    auto profile = usbsim::DeviceProfile::builtInDefault();
    usbsim::RefusalRule rule;
    rule.fr = 96000;
    rule.reason = "the clock does not lock at 96 kHz";
    profile.accept.refuse.push_back(rule);
    auto out = std::make_shared<usbsim::MemoryOutput>();
    {
        e2e::Rig rig(profile);
        rig.model().setOutput(out);
        rig.model().setInput(std::make_shared<usbsim::PatternInput>());
        // The refused change first; the last pair of streams sees the ASIO
        // client come and go and the attach timer fire, and is removed running.
        if (auto refused = rig.open(false, 96000, 2, 16))
            refused->setState(KSSTATE_RUN);
        struct Format {
            ULONG rate;
            USHORT renderBits, captureChannels, captureBits;
        };
        const Format formats[] = {
            {48000, 16, 2, 24}, {88200, 24, 8, 16}, {44100, 16, 4, 16}, {48000, 24, 2, 16}};
        for (const Format& f : formats) {
            const bool last = &f == &formats[3];
            auto render = rig.open(false, f.rate, 2, f.renderBits);
            auto capture = rig.open(true, f.rate, f.captureChannels, f.captureBits);
            if (!render || !capture)
                return run;
            e2e::Pump pump(rig, render.get(),
                           e2e::pack(e2e::noise(2 * (last ? 48000 : 3000), f.renderBits, f.rate),
                                     f.renderBits),
                           capture.get());
            render->setState(KSSTATE_RUN);
            capture->setState(KSSTATE_RUN);
            pump.periods(last ? 10 : 30);
            if (last) {
                rig.model().clearCalls();
                rig.model().asioAttach();
                pump.periods(5);
                rig.model().asioDetach();
                pump.periods(200); // a second: the attach timer asks for a timed start
                run.timedStarts = rig.model().callCount(USBCall_TimedStart);
                rig.harness.remove();
            }
            run.captured.insert(run.captured.end(), pump.captured.begin(), pump.captured.end());
        }
    }
    run.trace = hostk::capturedLines();
    run.played = out->samples();
    run.problems = hostk::checkClean();
    hostpc::useDriverImage("");
    return run;
}

TEST(Differential, TheImageAndTheLinkedDriverLiveTheSameLife) {
    const std::string image = imagetest::windowsBuildFile("mmeusbaudio.sys");
    if (!std::ifstream(image))
        GTEST_SKIP() << "no Windows build at " << image;
    const Life linked = liveWith("");
    const Life loaded = liveWith(image);
    ASSERT_EQ(linked.problems, "");
    ASSERT_EQ(loaded.problems, "");
    ASSERT_GT(linked.trace.size(), 100u);
    EXPECT_EQ(linked.timedStarts, 1u) << "the attach timer fired";
    EXPECT_EQ(loaded.timedStarts, 1u) << "the attach timer fired";
    EXPECT_TRUE(std::any_of(linked.trace.begin(), linked.trace.end(), [](const std::string& l) {
        return l.find("Configuration change was prevented by usb driver") != std::string::npos;
    })) << "the life includes the refused change";
    EXPECT_EQ(traceDifference(linked.trace, loaded.trace), "");
    ASSERT_FALSE(linked.played.empty());
    EXPECT_TRUE(linked.played == loaded.played) << "the device played different samples";
    EXPECT_TRUE(linked.captured == loaded.captured) << "the client captured different bytes";
}

} // namespace
