// Tracing from several threads at once (also run under ThreadSanitizer):
// every line stays whole and carries its own thread, each thread's lines
// keep their order, the shared depth returns to zero and the indentation
// stays within its bounds, and the sink can change while threads print.
#include "driver/common/Trace.h"
#include "host/kernel/HostKernel.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

// Spins until all parties have arrived, so that their tracing overlaps.
void arriveAndWait(std::atomic<int>& arrived, int parties) {
    ++arrived;
    while (arrived < parties)
        std::this_thread::yield();
}

void tracedWork(int thread, int iteration) {
    FunctionTrace outer("worker", ULONG(thread));
    outer.num("iteration", thread, iteration);
    {
        FunctionTrace inner("inner", ULONG(iteration));
        inner.hex("value", ULONG(thread * 1000 + iteration));
    }
    TraceLine("single", thread, iteration);
}

std::vector<std::string> expectedMessages(int thread, int iterations) {
    auto hex = [](int v) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%08X", unsigned(v));
        return std::string(text);
    };
    std::vector<std::string> messages;
    for (int i = 0; i < iterations; ++i) {
        const std::string pair = std::to_string(thread) + " " + std::to_string(i);
        for (std::string m : {"+ worker " + hex(thread), "iteration " + pair, "+ inner " + hex(i),
                              "value " + hex(thread * 1000 + i), std::string("- inner"),
                              "single " + pair, std::string("- worker")})
            messages.push_back(m);
    }
    return messages;
}

TEST(TraceConcurrency, ThreadsTracingAtOnceKeepLinesWholeAndInOrder) {
    constexpr int kThreads = 6;
    constexpr int kIterations = 150;
    std::atomic<int> arrived{0};
    std::vector<std::string> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            ids[t] = tracecap::kernelPointer(KeGetCurrentThread());
            arriveAndWait(arrived, kThreads);
            for (int i = 0; i < kIterations; ++i)
                tracedWork(t, i);
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
    const std::string prefix = "MME: (";
    for (const auto& line : tracecap::traceLines()) {
        ASSERT_EQ(line.compare(0, prefix.size(), prefix), 0) << line;
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
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(perThread[t], expectedMessages(t, kIterations)) << "thread " << t;
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
    EXPECT_EQ(tracecap::traceBodies(),
              (std::vector<std::string>{"+ holder 0x00000001", "  + mine 0x00000002", "    value",
                                        "  - mine", "- holder"}));
}

TEST(TraceConcurrency, SinkChangesWhileThreadsPrint) {
    constexpr int kThreads = 4;
    std::atomic<bool> stop{false};
    std::atomic<int> printed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            while (!stop) {
                TraceLine("steady line", t);
                ++printed;
            }
        });
    std::atomic<int> delivered{0};
    for (int round = 0; round < 100; ++round) {
        switch (round % 3) {
        case 0:
            hostk::setSinkNull();
            break;
        case 1:
            hostk::setSinkCallback([&](const std::string& text) {
                if (text.find("steady line") != std::string::npos)
                    ++delivered;
            });
            break;
        default:
            hostk::setSinkCapture();
            break;
        }
        std::this_thread::yield();
    }
    hostk::setSinkCapture();
    while (printed < 1000)
        std::this_thread::yield();
    stop = true;
    for (auto& thread : threads)
        thread.join();

    auto lines = tracecap::traceLines();
    EXPECT_FALSE(lines.empty());
    for (const auto& line : lines) {
        int t = -1;
        ASSERT_EQ(std::sscanf(tracecap::message(line).c_str(), "steady line %d", &t), 1) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        ASSERT_EQ(tracecap::message(line), "steady line " + std::to_string(t)) << line;
    }
}

} // namespace
