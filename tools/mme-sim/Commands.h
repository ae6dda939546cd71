// The commands of mme-sim. Each prints its report on stdout and returns
// the exit status; failures throw SimError (one line, its own status) or
// FileError.
#pragma once

#include "Sim.h"

#include <string>

namespace mmesim {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitError = 1; // bad input, refused format, failed I/O
constexpr int kExitUsage = 2; // the command line itself
// The loopback came back other than the rules say, the device's removal
// or return went other than a client may expect, or the teardown was not clean.
constexpr int kExitMismatch = 3;

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
    // Streaming commands: the device is unplugged at unplugAt (seconds of
    // audio from the start of streaming; negative: never) and replugged
    // replugAfter seconds later (0: it stays away); the system sleeps for
    // sleepSeconds from sleepAt.
    double unplugAt = -1, replugAfter = 0;
    double sleepAt = -1, sleepSeconds = 0;
};

// Parse "AT:SECONDS" for --stall, "AT[:REPLUG_AFTER]" for --unplug and
// "AT:SECONDS" for --sleep; throw SimError (usage) when malformed.
void parseStall(const std::string& text, CommandOptions* options);
void parseUnplug(const std::string& text, CommandOptions* options);
void parseSleep(const std::string& text, CommandOptions* options);

// "1.50 s": seconds as the reports print them.
std::string secondsText(double seconds);

int runDemo(const CommandOptions& options);
int runLoopback(const CommandOptions& options);
int runPlay(const CommandOptions& options);
int runRecord(const CommandOptions& options);
int runFormats(const CommandOptions& options);

} // namespace mmesim
