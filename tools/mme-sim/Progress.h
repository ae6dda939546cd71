// Progress of mme-sim: a bar redrawn in place when stdout is a terminal,
// one plain line per second of audio otherwise (per hundredth of the job
// beyond 100 s); nothing for jobs of a second or less.
#pragma once

#include <cstdint>
#include <string>

namespace mmesim {

class Progress {
public:
    Progress(const std::string& label, uint64_t totalFrames, uint32_t rate);
    ~Progress(); // finish()
    void update(uint64_t frames);
    void finish();

private:
    std::string mLabel;
    uint64_t mTotal;
    uint32_t mRate;
    bool mEnabled;
    bool mTerminal;
    bool mDone = false;
    int mLastShown = -1; // percent (terminal) or whole seconds (lines)
};

} // namespace mmesim
