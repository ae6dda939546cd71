// WAV files of mme-sim through libsndfile: a reader for the stream a client
// plays (16-, 24- and 32-bit PCM WAV only, refused otherwise with the
// reason), and a writer that puts a file in place only when it is complete
// (written to "<name>.part", renamed by commit(), removed otherwise).
#pragma once

#include "Pcm.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

typedef struct sf_private_tag SNDFILE;

namespace mmesim {

// A problem with a file the user named; the message is one line.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class WavReader {
public:
    explicit WavReader(const std::string& path); // throws FileError
    ~WavReader();
    WavReader(const WavReader&) = delete;
    WavReader& operator=(const WavReader&) = delete;

    const Format& format() const { return mFormat; }
    uint64_t frames() const { return mFrames; }
    // Up to `frames` frames packed in the stream's PCM; fewer at the end.
    size_t read(uint8_t* destination, size_t frames); // throws FileError
    void seek(uint64_t frame);                        // throws FileError

private:
    std::string mPath;
    SNDFILE* mFile = nullptr;
    Format mFormat;
    uint64_t mFrames = 0;
    std::vector<int> mBuffer;
};

class WavWriter {
public:
    // Creates "<path>.part" at once, so an unwritable place fails early.
    WavWriter(const std::string& path, const Format& format); // throws FileError
    ~WavWriter();                                             // removes the unfinished file
    WavWriter(const WavWriter&) = delete;
    WavWriter& operator=(const WavWriter&) = delete;

    void write(const uint8_t* pcm, size_t frames); // throws FileError
    void commit();                                 // throws FileError
    uint64_t frames() const { return mFrames; }

private:
    std::string mPath, mPartPath;
    Format mFormat;
    SNDFILE* mFile = nullptr;
    uint64_t mFrames = 0;
    std::vector<int> mBuffer;
};

// "path: problem" for a file that cannot be read at all (missing,
// unreadable, a directory); empty when it can be opened.
std::string unreadableReason(const std::string& path);

} // namespace mmesim
