// The driver's trace output, line by line: every form, nesting and its cap,
// silent traces, and threads tracing at once: lines whole, each with its own
// thread part and in its thread's order, the depth shared between them.
#include "driver/common/MMEAdapterInfo.h"
#include "driver/common/Trace.h"
#include "host/kernel/HostKernel.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using tracecap::traceBodies;
using tracecap::traceLines;

const void* const kObject = reinterpret_cast<const void*>(uintptr_t(0x561D2C3A9F10));
const void* const kOther = reinterpret_cast<const void*>(uintptr_t(0xFFFF8001234ABCD0));

// Every FunctionTrace and TraceLine form; a line without this thread's
// "MME: (<thread>) " prefix keeps it in its body and fails the comparison.
TEST(TraceFunction, OpenValueAndCloseLinesOfEveryForm) {
    // Memory order fr, inCH, outCH, inRes, outRes, config; printed otherwise.
    const ChannelConfig config{48000, 2, 8, 24, 32, 7};
    const GUID iidUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    const GUID iidAdapter = {
        0xD7C1562E, 0x8F69, 0x449B, {0x91, 0x44, 0x1B, 0x8B, 0x8F, 0x0E, 0x32, 0xC8}};
    {
        FunctionTrace trace("MMEAdapter::callUSBDriver", kObject);
        trace.text("call IoCallDriver");
        trace.num("one", -1);
        trace.num("two", 1, 2);
        trace.num("three", 3, -4, 5);
        trace.num("four", 6, 7, 8, 2147483647);
        trace.num("five", -2147483647 - 1, 0, 1, 2, 3);
        trace.pointer("pointer", nullptr);
        trace.pointers("!m_pCallIrp || !mUSBDeviceObject", kObject, kOther);
        trace.hex("result IoCallDriver", 0xC0000016);
        trace.hex("two hex", 0x1F, 0);
    }
    { FunctionTrace trace("MMEAdapter::onTimer", ULONG(3)); }
    { FunctionTrace trace("MMEWave::NewStream", ULONG(0xBB00CC11)); }
    TraceLine("MMEAdapter::start");
    TraceLine("one", -7);
    TraceLine("two", 0, 1);
    TraceLine("three", 1, -2, 3);
    TraceLineConfig("fr/inCH/inRes/outCH/outRes/config", config);
    TraceLineStatus("status", STATUS_MORE_PROCESSING_REQUIRED);
    TraceLineStatus("status", STATUS_SUCCESS);
    TraceLinePointer("pointer", kOther);
    TraceLinePointer("pointer", nullptr);
    TraceLineGuid("Interface is", iidUnknown);
    TraceLineGuid("Interface is", iidAdapter);
    EXPECT_EQ(traceBodies(),
              (std::vector<std::string>{
                  "+ MMEAdapter::callUSBDriver 0x0000561D2C3A9F10",
                  "  call IoCallDriver",
                  "  one -1",
                  "  two 1 2",
                  "  three 3 -4 5",
                  "  four 6 7 8 2147483647",
                  "  five -2147483648 0 1 2 3",
                  "  pointer 0x0000000000000000",
                  "  !m_pCallIrp || !mUSBDeviceObject 0x0000561D2C3A9F10 0xFFFF8001234ABCD0",
                  "  result IoCallDriver 0xC0000016",
                  "  two hex 0x0000001F 0x00000000",
                  "- MMEAdapter::callUSBDriver",
                  "+ MMEAdapter::onTimer 0x00000003",
                  "- MMEAdapter::onTimer",
                  "+ MMEWave::NewStream 0xBB00CC11",
                  "- MMEWave::NewStream",
                  "MMEAdapter::start",
                  "one -7",
                  "two 0 1",
                  "three 1 -2 3",
                  "fr/inCH/inRes/outCH/outRes/config 48000 2 24 8 32 7",
                  "status 0xC0000016",
                  "status 0x0",
                  "pointer 0xFFFF8001234ABCD0",
                  "pointer 0x0000000000000000",
                  "Interface is 0-0-0-C0-46000000",
                  "Interface is D7C1562E-8F69-449B-8B1B4491-C8320E8F",
              }));
    EXPECT_EQ(TraceDepth(), 0);
}

void innermost() {
    FunctionTrace inner("inner", ULONG(3));
    inner.num("deep", 9);
    // Single lines stay unindented at any depth.
    TraceLine("event");
    TraceLineStatus("failed", STATUS_INVALID_PARAMETER);
}

// A null name is silent in every form and leaves the depth alone.
TEST(TraceFunction, EachLevelIsTwoBlanksDeeperSingleLinesNeverAndSilentTracesNotAtAll) {
    {
        FunctionTrace outer("outer", nullptr);
        outer.text("x");
        {
            FunctionTrace silent(nullptr, kObject);
            silent.text("dropped");
            silent.num("dropped", 1, 2, 3, 4, 5);
            silent.pointers("dropped", kObject, kOther);
            silent.hex("dropped", 1, 2);
            FunctionTrace middle("middle", ULONG(2));
            FunctionTrace alsoSilent(nullptr, ULONG(5));
            EXPECT_EQ(TraceDepth(), 2);
            innermost();
            middle.text("after inner");
        }
        { FunctionTrace sibling("sibling", ULONG(4)); }
    }
    EXPECT_EQ(TraceDepth(), 0);
    EXPECT_EQ(traceBodies(), (std::vector<std::string>{
                                 "+ outer 0x0000000000000000",
                                 "  x",
                                 "  + middle 0x00000002",
                                 "    + inner 0x00000003",
                                 "      deep 9",
                                 "event",
                                 "failed 0xC000000D",
                                 "    - inner",
                                 "    after inner",
                                 "  - middle",
                                 "  + sibling 0x00000004",
                                 "  - sibling",
                                 "- outer",
                             }));
}

void nest(int levels, int& reached) {
    FunctionTrace trace("level", ULONG(levels));
    trace.text("v");
    if (levels > 1)
        nest(levels - 1, reached);
    else
        reached = (int)TraceDepth();
}

TEST(TraceFunction, NestingBeyond127LevelsIsCappedAndUnwindsCleanly) {
    constexpr int kLevels = 140;
    int reached = 0;
    nest(kLevels, reached);
    EXPECT_EQ(reached, kLevels) << "depth counts every level";
    EXPECT_EQ(TraceDepth(), 0);

    auto lines = traceLines();
    ASSERT_EQ(lines.size(), 3u * kLevels);
    const size_t cap = 2 * MME_TRACE_MAX_INDENT_LEVELS;
    for (int d = 0; d < kLevels; ++d) {
        // Open and value line of depth d, close lines in reverse order.
        const std::string& open = lines[2 * d];
        const std::string& close = lines[lines.size() - 1 - d];
        ASSERT_EQ(tracecap::indentOf(open), std::min<size_t>(2 * d, cap)) << d;
        ASSERT_EQ(tracecap::indentOf(lines[2 * d + 1]), std::min<size_t>(2 * (d + 1), cap)) << d;
        ASSERT_EQ(tracecap::indentOf(close), tracecap::indentOf(open)) << d;
        char expected[32];
        std::snprintf(expected, sizeof expected, "+ level 0x%08X", unsigned(kLevels - d));
        ASSERT_EQ(tracecap::message(open), expected) << d;
        ASSERT_EQ(tracecap::message(lines[2 * d + 1]), "v");
        ASSERT_EQ(tracecap::message(close), "- level");
    }
}

// ---- Several threads at once (under ThreadSanitizer too) ----

TEST(TraceConcurrency, ThreadsTracingAtOnceKeepLinesWholeAndInOrder) {
    constexpr int kThreads = 6;
    constexpr int kIterations = 150;
    std::atomic<int> arrived{0};
    std::vector<std::string> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            ids[t] = tracecap::kernelPointer(KeGetCurrentThread());
            for (++arrived; arrived < kThreads;) // start together, so the tracing overlaps
                std::this_thread::yield();
            for (int i = 0; i < kIterations; ++i) {
                FunctionTrace outer("worker", ULONG(t));
                outer.num("iteration", t, i);
                TraceLine("single", t, i);
            }
        });
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(TraceDepth(), 0);
    std::map<std::string, int> threadOfId;
    for (int t = 0; t < kThreads; ++t)
        threadOfId[ids[t]] = t;
    ASSERT_EQ(threadOfId.size(), size_t(kThreads)) << "distinct thread objects";
    EXPECT_EQ(threadOfId.count(tracecap::kernelPointer(KeGetCurrentThread())), 0u);

    std::vector<std::vector<std::string>> perThread(kThreads);
    for (const auto& line : tracecap::traceLines()) {
        auto owner = threadOfId.find(tracecap::threadOf(line));
        ASSERT_NE(owner, threadOfId.end()) << "thread part of another thread: " << line;
        const size_t indent = tracecap::indentOf(line);
        ASSERT_EQ(indent % 2, 0u) << line;
        ASSERT_LE(indent, size_t(2 * MME_TRACE_MAX_INDENT_LEVELS)) << line;
        const std::string message = tracecap::message(line);
        if (message.compare(0, 7, "single ") == 0) {
            ASSERT_EQ(indent, 0u) << "single lines are never indented: " << line;
        }
        perThread[owner->second].push_back(message);
    }
    for (int t = 0; t < kThreads; ++t) {
        char open[32];
        std::snprintf(open, sizeof open, "+ worker 0x%08X", unsigned(t));
        std::vector<std::string> expected;
        for (int i = 0; i < kIterations; ++i) {
            const std::string pair = std::to_string(t) + " " + std::to_string(i);
            expected.insert(expected.end(),
                            {open, "iteration " + pair, "single " + pair, "- worker"});
        }
        EXPECT_EQ(perThread[t], expected) << "thread " << t;
    }
}

TEST(TraceConcurrency, DepthIsSharedSoOtherThreadsLinesShowIt) {
    std::atomic<int> stage{0};
    std::thread holder([&] {
        FunctionTrace open("holder", ULONG(1));
        stage = 1;
        while (stage != 2)
            std::this_thread::yield();
    });
    while (stage != 1)
        std::this_thread::yield();
    {
        FunctionTrace mine("mine", ULONG(2));
        mine.text("value");
    }
    stage = 2;
    holder.join();
    EXPECT_EQ(TraceDepth(), 0);
    EXPECT_EQ(traceBodies(), (std::vector<std::string>{"+ holder 0x00000001", "  + mine 0x00000002",
                                                       "    value", "  - mine", "- holder"}));
}

} // namespace
