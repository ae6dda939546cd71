// The commands of mme-sim. Each prints its report on stdout and returns
// the exit status; failures throw SimError (one line, its own status) or
// FileError.
#pragma once

#include "Sim.h"

#include <string>

namespace mmesim {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitError = 1;    // bad input, refused format, failed I/O
constexpr int kExitUsage = 2;    // the command line itself
constexpr int kExitMismatch = 3; // the loopback came back other than the rules say

// Loopback delay of the simulated device, in frames.
constexpr uint32_t kLoopbackFrames = 512;

struct CommandOptions {
    SimOptions sim;
    std::string format;    // "rate/channels/bits"; empty: the command's choice
    double seconds = 0;    // 0: the command's default
    std::string file;      // play: the WAV to play; record: the WAV to write
    std::string out;       // play: device output WAV
    std::string input;     // record: device input WAV
    std::string generator; // record: device input generator
    // loopback and demo: the client neither writes nor reads for
    // stallSeconds from stallAt on (seconds of the run); 0: never.
    double stallAt = 0, stallSeconds = 0;
};

// Parses "AT:SECONDS" for --stall; throws SimError (usage) when malformed.
void parseStall(const std::string& text, CommandOptions* options);

int runDemo(const CommandOptions& options);
int runLoopback(const CommandOptions& options);
int runPlay(const CommandOptions& options);
int runRecord(const CommandOptions& options);
int runFormats(const CommandOptions& options);

} // namespace mmesim
