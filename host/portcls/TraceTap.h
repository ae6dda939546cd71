// What a client program of the driver keeps of its debug output: the
// recent lines (to quote the driver's own reason for a refusal), a copy in
// a trace file and, if asked, on stderr. Installs itself as the host
// kernel's debug-output sink for its lifetime; one at a time.
#pragma once

#include "driver/platform/platform.h"

#include <cstddef>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>

namespace hostpc {

class TraceTap {
public:
    // Throws std::runtime_error when `path` (if not empty) cannot be written.
    TraceTap(const std::string& path, bool toStderr);
    ~TraceTap();
    TraceTap(const TraceTap&) = delete;
    TraceTap& operator=(const TraceTap&) = delete;

    size_t mark() const; // lines seen so far
    // The driver's own words for a refusal among the lines since `mark`:
    // the last line that says why, without the trace prefix; empty when
    // none does.
    std::string reasonSince(size_t mark) const;
    // How a client tells a refusal: the status, the driver's reason since
    // `mark` in quotes and, when given, the USB driver's reason.
    std::string refusal(NTSTATUS status, size_t mark, const std::string& usbReason) const;
    // Each complete line, as it comes (with the tap's lock held).
    void setLineHook(std::function<void(const std::string&)> hook);

private:
    void take(const std::string& text);

    mutable std::mutex mLock;
    std::ofstream mFile;
    bool mStderr;
    std::string mPartial;
    std::deque<std::string> mRecent;
    std::function<void(const std::string&)> mLineHook;
    size_t mTotal = 0;
};

} // namespace hostpc
