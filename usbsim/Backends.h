// Device I/O backends of the model USB driver. An input backend produces the
// frames the device records; an output backend receives the frames the
// device plays. Samples are interleaved signed 32-bit in the working format
// (left-justified: a 24-bit value v is v x 256), whatever the rings use.
//
// The model calls a backend only from its period, under its lock: backends
// need no locking of their own. configure() is called before the first
// period and whenever the hardware's rate or channel count changes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

typedef struct sf_private_tag SNDFILE;

namespace usbsim {

class InputBackend {
public:
    virtual ~InputBackend();
    virtual void configure(uint32_t rate, uint32_t channels);
    // Fills frames x channels samples.
    virtual void read(int32_t* destination, uint32_t frames, uint32_t channels) = 0;
    virtual std::string describe() const = 0;
};

class OutputBackend {
public:
    virtual ~OutputBackend();
    virtual void configure(uint32_t rate, uint32_t channels);
    virtual void write(const int32_t* source, uint32_t frames, uint32_t channels) = 0;
    virtual void finish(); // flush and close what needs closing
    virtual std::string describe() const = 0;
};

class SilenceInput : public InputBackend {
public:
    void read(int32_t* destination, uint32_t frames, uint32_t channels) override;
    std::string describe() const override { return "silence"; }
};

// Sine on every channel. amplitude is a fraction of full scale (0..1).
class SineInput : public InputBackend {
public:
    SineInput(double frequencyHz, double amplitude);
    void configure(uint32_t rate, uint32_t channels) override;
    void read(int32_t* destination, uint32_t frames, uint32_t channels) override;
    std::string describe() const override;

private:
    double mFrequency, mAmplitude;
    uint32_t mRate = 48000;
    double mPhase = 0; // cycles, 0..1
};

// Sine whose frequency runs from startHz to endHz in seconds, then starts
// again; logarithmic (equal time per octave) or linear.
class SweepInput : public InputBackend {
public:
    SweepInput(double startHz, double endHz, double seconds, double amplitude, bool logarithmic);
    void configure(uint32_t rate, uint32_t channels) override;
    void read(int32_t* destination, uint32_t frames, uint32_t channels) override;
    std::string describe() const override;
    double frequencyAt(double secondsIn) const;

private:
    double mStart, mEnd, mSeconds, mAmplitude;
    bool mLog;
    uint32_t mRate = 48000;
    uint64_t mFrame = 0;
    double mPhase = 0;
};

// A known pattern that survives the trip to 16-bit and 24-bit streams:
// bits 16..31 carry the frame number (mod 65536), bits 8..15 the channel.
class PatternInput : public InputBackend {
public:
    static int32_t sample(uint64_t frame, uint32_t channel);
    void read(int32_t* destination, uint32_t frames, uint32_t channels) override;
    std::string describe() const override { return "pattern"; }
    uint64_t framesProduced() const { return mFrame; }

private:
    uint64_t mFrame = 0;
};

// Reads a sound file through libsndfile; the file's channel j feeds device
// channel j (extra device channels get silence). At the end: silence, or
// from the start again when looping. The rate is not converted.
class WavFileInput : public InputBackend {
public:
    explicit WavFileInput(const std::string& path, bool loop = false); // throws std::runtime_error
    ~WavFileInput() override;
    void read(int32_t* destination, uint32_t frames, uint32_t channels) override;
    std::string describe() const override;
    uint32_t fileRate() const { return mFileRate; }
    uint32_t fileChannels() const { return mFileChannels; }
    bool finished() const { return mFinished; }

private:
    std::string mPath;
    bool mLoop;
    SNDFILE* mFile = nullptr;
    uint32_t mFileRate = 0, mFileChannels = 0;
    bool mFinished = false;
    std::vector<int32_t> mBuffer;
};

class NullOutput : public OutputBackend {
public:
    void write(const int32_t*, uint32_t frames, uint32_t) override { mFrames += frames; }
    std::string describe() const override { return "null"; }
    uint64_t frames() const { return mFrames; }

private:
    uint64_t mFrames = 0;
};

// Keeps everything played, for tests; channel count fixed by the first
// configure() (later frames are mapped to it).
class MemoryOutput : public OutputBackend {
public:
    void configure(uint32_t rate, uint32_t channels) override;
    void write(const int32_t* source, uint32_t frames, uint32_t channels) override;
    std::string describe() const override { return "memory"; }
    uint32_t channels() const { return mChannels; }
    uint32_t rate() const { return mRate; }
    uint64_t frames() const { return mChannels ? mSamples.size() / mChannels : 0; }
    int32_t at(uint64_t frame, uint32_t channel) const {
        return mSamples[frame * mChannels + channel];
    }
    const std::vector<int32_t>& samples() const { return mSamples; }
    void clear() { mSamples.clear(); }

private:
    uint32_t mChannels = 0, mRate = 0;
    std::vector<int32_t> mSamples;
};

// Writes a WAV file (16, 24 or 32-bit PCM) with the rate and channel count
// of the first configure(). The file appears under its name only when
// finish() succeeds: until then it is written to "<path>.part". Frames
// written after finish() are dropped.
class WavFileOutput : public OutputBackend {
public:
    explicit WavFileOutput(const std::string& path,
                           uint32_t bits = 24);                // throws std::invalid_argument
    ~WavFileOutput() override;                                 // abandons an unfinished file
    void configure(uint32_t rate, uint32_t channels) override; // throws std::runtime_error
    void write(const int32_t* source, uint32_t frames, uint32_t channels) override;
    void finish() override; // throws std::runtime_error
    std::string describe() const override;
    uint64_t frames() const { return mFrames; }

private:
    std::string mPath, mPartPath;
    uint32_t mBits;
    uint32_t mChannels = 0;
    SNDFILE* mFile = nullptr;
    bool mFinished = false;
    uint64_t mFrames = 0;
    std::vector<int32_t> mBuffer;
};

// What the device plays comes back on its input exactly latencyFrames later
// (the first latencyFrames input frames are silence). Output channel j feeds
// input channel j (at most kMaxChannels); extra input channels get silence.
// Input that would need frames not played yet gets silence and counts as an
// underrun. The delay line is a fixed ring as wide as the output: output
// that runs more than kSlackFrames ahead of the input pushes out the oldest
// frames (counted as overflows), so memory does not grow with the run.
class LoopbackBackend : public InputBackend, public OutputBackend {
public:
    explicit LoopbackBackend(uint32_t latencyFrames);
    // The model configures the output last: the ring takes its width.
    void configure(uint32_t rate, uint32_t channels) override;
    void read(int32_t* destination, uint32_t frames, uint32_t channels) override;
    void write(const int32_t* source, uint32_t frames, uint32_t channels) override;
    std::string describe() const override;
    uint32_t latencyFrames() const { return mLatency; }
    uint64_t underruns() const { return mUnderruns; }
    uint64_t overflows() const { return mOverflows; }
    // A device at power-on: nothing in flight, the latency's silence again.
    void clear();

    static constexpr uint32_t kMaxChannels = 32;
    static constexpr uint32_t kSlackFrames = 16384; // beyond the latency: four longest periods

private:
    void setWidth(uint32_t channels); // keeps the frames in flight

    uint32_t mLatency;
    size_t mFrames;             // ring capacity
    uint32_t mWidth = 0;        // samples per frame in the ring
    std::vector<int32_t> mRing; // mFrames x mWidth
    uint64_t mHead = 0;         // next frame to hear
    uint64_t mTail = 0;         // next frame to play into
    uint64_t mUnderruns = 0;
    uint64_t mOverflows = 0;
};

// Backends from a short text, for programs:
//   input:  "silence", "pattern", "sine[:HZ[:AMPLITUDE]]",
//           "sweep[:FROM:TO[:SECONDS]]", "wav:PATH", "wavloop:PATH"
//   output: "null", "wav:PATH", "wav16:PATH", "wav32:PATH"
// Throws std::invalid_argument naming what is wrong.
std::shared_ptr<InputBackend> makeInput(const std::string& description);
std::shared_ptr<OutputBackend> makeOutput(const std::string& description);

} // namespace usbsim
