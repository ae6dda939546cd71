// The linked driver and its Windows image, one after the other in this
// process, through the same life: streams at several formats, the ASIO
// client coming and going, a change the USB driver refuses, removal with
// streams running. Both must trace the same and move the same samples.
#include "support/DriverImage.h"
#include "support/E2eRig.h"
#include "usbsim/Backends.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

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
        struct Format {
            ULONG rate;
            USHORT renderBits, captureChannels, captureBits;
        };
        for (const Format& f :
             {Format{48000, 16, 2, 24}, Format{88200, 24, 8, 16}, Format{44100, 16, 4, 16}}) {
            auto render = rig.open(false, f.rate, 2, f.renderBits);
            auto capture = rig.open(true, f.rate, f.captureChannels, f.captureBits);
            if (!render || !capture)
                return run;
            e2e::Pump pump(rig, render.get(),
                           e2e::pack(e2e::noise(2 * 3000, f.renderBits, f.rate), f.renderBits),
                           capture.get());
            pump.feed();
            render->setState(KSSTATE_RUN);
            capture->setState(KSSTATE_RUN);
            pump.periods(30);
            run.captured.insert(run.captured.end(), pump.captured.begin(), pump.captured.end());
        }
        // The refused change, then the ASIO client and the attach timer,
        // then removal with both streams running.
        auto refused = rig.open(false, 96000, 2, 16);
        if (refused)
            refused->setState(KSSTATE_RUN);
        refused.reset();
        auto render = rig.open(false, 48000, 2, 24);
        auto capture = rig.open(true, 48000, 2, 16);
        if (!render || !capture)
            return run;
        e2e::Pump pump(rig, render.get(), e2e::pack(e2e::noise(2 * 48000, 24, 7), 24),
                       capture.get());
        pump.feed();
        render->setState(KSSTATE_RUN);
        capture->setState(KSSTATE_RUN);
        pump.periods(10);
        rig.model().clearCalls();
        rig.model().asioAttach();
        pump.periods(5);
        rig.model().asioDetach();
        pump.periods(200); // a second of sample time: the attach timer asks for a timed start
        run.timedStarts = rig.model().callCount(USBCall_TimedStart);
        run.captured.insert(run.captured.end(), pump.captured.begin(), pump.captured.end());
        rig.harness.remove();
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
