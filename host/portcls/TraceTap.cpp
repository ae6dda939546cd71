#include "host/portcls/TraceTap.h"

#include "host/kernel/HostKernel.h"
#include "host/portcls/KsClient.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

namespace hostpc {

namespace {

constexpr size_t kRecentLines = 400;

// Lines the driver prints when it refuses something, by the words it uses.
const char* const kReasonWords[] = {
    "ERROR",          "DISABLED",      "not allowed",     "mismach",           "prevented",
    "second capture", "second render", "(less channels)", "invalid paramter",  "No DMA",
    "!pPinDesc",      "refused",       "failed",          "already allocated",
};

std::string withoutPrefix(const std::string& line) {
    std::string text = line;
    if (text.compare(0, 6, "MME: (") == 0) {
        const size_t close = text.find(") ");
        if (close != std::string::npos)
            text = text.substr(close + 2);
    }
    const size_t start = text.find_first_not_of(' ');
    return start == std::string::npos ? std::string() : text.substr(start);
}

} // namespace

TraceTap::TraceTap(const std::string& path, bool toStderr) : mStderr(toStderr) {
    if (!path.empty()) {
        mFile.open(path, std::ios::out | std::ios::trunc);
        if (!mFile)
            throw std::runtime_error(path + ": cannot write the trace file");
    }
    hostk::setSinkCallback([this](const std::string& text) { take(text); });
}

TraceTap::~TraceTap() {
    hostk::setSinkNull();
    std::lock_guard<std::mutex> lock(mLock);
    if (!mPartial.empty() && mFile)
        mFile << mPartial << '\n';
}

void TraceTap::take(const std::string& text) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mFile)
        mFile << text;
    if (mStderr)
        std::cerr << text;
    mPartial += text;
    size_t end;
    while ((end = mPartial.find('\n')) != std::string::npos) {
        mRecent.push_back(mPartial.substr(0, end));
        if (mLineHook)
            mLineHook(mRecent.back());
        mPartial.erase(0, end + 1);
        ++mTotal;
        if (mRecent.size() > kRecentLines)
            mRecent.pop_front();
    }
}

void TraceTap::setLineHook(std::function<void(const std::string&)> hook) {
    std::lock_guard<std::mutex> lock(mLock);
    mLineHook = std::move(hook);
}

size_t TraceTap::mark() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mTotal;
}

std::string TraceTap::reasonSince(size_t mark) const {
    std::lock_guard<std::mutex> lock(mLock);
    const size_t oldest = mTotal - mRecent.size();
    for (size_t i = mTotal; i > std::max(mark, oldest); --i) {
        const std::string& line = mRecent[i - 1 - oldest];
        if (line.find("DMA init on failure") != std::string::npos)
            continue;
        for (const char* word : kReasonWords)
            if (line.find(word) != std::string::npos)
                return withoutPrefix(line);
    }
    return std::string();
}

std::string TraceTap::refusal(NTSTATUS status, size_t mark, const std::string& usbReason) const {
    std::string text = statusName(status);
    const std::string why = reasonSince(mark);
    if (!why.empty())
        text += ": \"" + why + "\"";
    if (!usbReason.empty())
        text += " (USB driver: " + usbReason + ")";
    return text;
}

} // namespace hostpc
