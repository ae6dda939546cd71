// A loaded image's processor state and DbgPrint, through the probe image
// built by the driver's toolchain (tests/image/probe.cpp).
#include "host/image/Exports.h"
#include "host/image/PeImage.h"
#include "host/image/Processor.h"
#include "host/kernel/HostKernel.h"
#include "support/DriverImage.h"

#include <asm/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

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

TEST_F(ImageProbe, DbgPrintFormatsAsWindowsAndCr8ReadsAndSetsTheThreadsIrql) {
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

TEST_F(ImageProbe, PrivilegedInstructionIsAVerifierFailureNamingItsBytes) {
    EXPECT_EQ(run(u'c'), Lines{"probe after cli"});
    const auto failures = hostk::verifierFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].find("privileged instruction at "), std::string::npos) << failures[0];
    EXPECT_NE(failures[0].find("): fa"), std::string::npos) << failures[0];
    hostk::clearVerifierFailures();
}

} // namespace
