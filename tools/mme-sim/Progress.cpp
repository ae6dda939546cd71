// Progress bar or plain progress lines.
#include "Progress.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace mmesim {

Progress::Progress(const std::string& label, uint64_t totalFrames, uint32_t rate)
    : mLabel(label), mTotal(totalFrames), mRate(rate ? rate : 1), mEnabled(totalFrames > rate),
      mTerminal(::isatty(STDOUT_FILENO) == 1) {}

Progress::~Progress() {
    finish();
}

void Progress::update(uint64_t frames) {
    if (!mEnabled || mDone)
        return;
    frames = std::min(frames, mTotal);
    const double seconds = double(frames) / mRate;
    const double total = double(mTotal) / mRate;
    if (mTerminal) {
        const int percent = int(frames * 100 / mTotal);
        if (percent == mLastShown)
            return;
        mLastShown = percent;
        const int width = 30;
        const int filled = percent * width / 100;
        std::printf("\r%s [%.*s%*s] %5.1f/%.1f s", mLabel.c_str(), filled,
                    "##############################", width - filled, "", seconds, total);
        std::fflush(stdout);
        return;
    }
    // A line a second, or a line a hundredth of the job for longer ones.
    const uint64_t every = std::max<uint64_t>(mRate, mTotal / 100 / mRate * mRate);
    const int whole = int(frames / every);
    if (whole == mLastShown || whole == 0)
        return;
    mLastShown = whole;
    std::printf("%s: %.1f of %.1f s\n", mLabel.c_str(), seconds, total);
    std::fflush(stdout);
}

void Progress::finish() {
    if (!mEnabled || mDone)
        return;
    mDone = true;
    if (mTerminal) {
        std::printf("\n");
        std::fflush(stdout);
    }
}

} // namespace mmesim
