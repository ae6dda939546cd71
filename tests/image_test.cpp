// The driver's Windows image on the host: the loader maps the shipped .sys
// with each section's protection and binds every import, and refuses
// damaged copies with their reason; the probe image (tests/image/probe.cpp)
// shows the processor state and DbgPrint an image sees; and the linked
// driver and the image live the same life, one after the other: streams at
// several formats, the ASIO client coming and going, a change the USB driver
// refuses, removal with streams running. Both must trace the same and move
// the same samples.
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
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// ---- The loader ----

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

TEST_F(ImageLoader, MapsTheDriverWithSectionProtectionsRelocatesEachCopyAndRefusesDamagedOnes) {
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

    // (Every import bound to its export: fuzz_pe_image, and the image suites run.)
    ASSERT_FALSE(image->imports().empty());

    // Loaded twice, from the file, the copies live apart: relocated.
    auto second =
        hostimg::LoadedImage::loadFile(imagetest::driverImagePath(), &hostimg::hostExport, &error);
    ASSERT_TRUE(second) << error;
    EXPECT_NE(second->base(), image->base());
    EXPECT_FALSE(
        hostimg::LoadedImage::loadFile("/nonexistent/x.sys", &hostimg::hostExport, &error));
    EXPECT_EQ(error, "/nonexistent/x.sys: cannot open");

    // Damaged copies are refused with their reason.
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
        error.clear();
        EXPECT_FALSE(load(copy, &error)) << d.what;
        EXPECT_NE(error.find(d.reason), std::string::npos)
            << d.what << ": \"" << error << "\" lacks \"" << d.reason << "\"";
    }
}

// ---- The probe image ----

std::string pointerText(const void* p) {
    char text[24];
    std::snprintf(text, sizeof text, "%016llX", (unsigned long long)(uintptr_t)p);
    return text;
}

class ImageProbe : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string path = imagetest::windowsBuildFile("mmeprobe.sys");
        std::string error;
        image = hostimg::LoadedImage::loadFile(path, &hostimg::hostExport, &error);
        if (!image)
            GTEST_SKIP() << "no probe image: " << error;
        hostimg::enableProcessorState();
    }
    // Runs the probe's command; returns the lines it printed.
    std::vector<std::string> run(char16_t command) {
        hostk::clearCaptured();
        char16_t text[2] = {command, 0};
        struct {
            uint16_t length, maximum;
            char16_t* buffer;
        } path = {2, 4, text};
        using Entry = __attribute__((ms_abi)) NTSTATUS (*)(void*, void*);
        EXPECT_EQ(reinterpret_cast<Entry>(image->entryPoint())(nullptr, &path), STATUS_SUCCESS);
        return hostk::capturedLines();
    }
    std::unique_ptr<hostimg::LoadedImage> image;
};

using Lines = std::vector<std::string>;

TEST_F(ImageProbe, DbgPrintFormatsAsWindowsCr8IsTheThreadsIrqlAndCliIsAVerifierFailure) {
    // %ld is 32 bits on Windows: the 64-bit 0x1234567890 prints its low half.
    EXPECT_EQ(run(u'p'), Lines{"probe 878082192 fedcba9876543210 wide|"});
    EXPECT_EQ(run(u'i'), Lines{"probe irql 0 0 2 0"});
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    Lines atDispatch;
    hostk::runAtDispatch([&] {
        atDispatch = run(u'i');
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    });
    EXPECT_EQ(atDispatch, Lines{"probe irql 2 2 2 2"});
    // A privileged instruction is a verifier failure naming its bytes.
    EXPECT_EQ(run(u'c'), Lines{"probe after cli"});
    const auto failures = hostk::verifierFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].find("privileged instruction at "), std::string::npos) << failures[0];
    EXPECT_NE(failures[0].find("): fa"), std::string::npos) << failures[0];
    hostk::clearVerifierFailures();
}

TEST_F(ImageProbe, GsGivesEachThreadItsOwnThreadObject) {
    EXPECT_EQ(run(u't'), Lines{"probe thread " + pointerText(KeGetCurrentThread())});
    // A thread inherits its creator's GS base: entering as a driver thread
    // gives it its own, one whose GS base is empty gets it at its first
    // read, and one that runs the image on its creator's block is caught.
    enum Start { Entered, NoGsBase, Inherited };
    for (Start start : {Entered, NoGsBase, Inherited}) {
        Lines lines;
        std::string own;
        std::thread([&] {
            if (start == NoGsBase)
                syscall(SYS_arch_prctl, ARCH_SET_GS, 0UL);
            else if (start == Entered)
                hostk::enterDriverThread();
            own = "probe thread " + pointerText(KeGetCurrentThread());
            lines = run(u't');
        }).join();
        EXPECT_NE(own, "probe thread " + pointerText(KeGetCurrentThread()));
        const auto failures = hostk::verifierFailures();
        if (start == Inherited) {
            EXPECT_EQ(lines, Lines{"probe thread " + pointerText(KeGetCurrentThread())});
            ASSERT_EQ(failures.size(), 1u);
            EXPECT_NE(failures[0].find("did not call hostk::enterDriverThread()"),
                      std::string::npos);
            hostk::clearVerifierFailures();
        } else {
            EXPECT_EQ(lines, Lines{own}) << start;
            EXPECT_TRUE(failures.empty()) << start;
        }
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
