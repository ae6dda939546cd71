// Device I/O backends: silence, generators, pattern, WAV files through
// libsndfile, in-memory capture and the loopback delay line.
#include "usbsim/Backends.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace usbsim {

namespace {

constexpr double kTwoPi = 6.283185307179586476925286766559;

int32_t toWorking(double x) {
    // Full scale is 0x7FFFFF00: the 24-bit range, so a 24-bit device keeps every bit.
    double v = std::round(std::clamp(x, -1.0, 1.0) * 8388607.0);
    return int32_t(uint32_t(int32_t(v)) << 8);
}

void fillFrame(int32_t* frame, uint32_t channels, int32_t value) {
    for (uint32_t c = 0; c < channels; ++c)
        frame[c] = value;
}

std::string number(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

} // namespace

InputBackend::~InputBackend() = default;
void InputBackend::configure(uint32_t, uint32_t) {}
OutputBackend::~OutputBackend() = default;
void OutputBackend::configure(uint32_t, uint32_t) {}
void OutputBackend::finish() {}

void SilenceInput::read(int32_t* destination, uint32_t frames, uint32_t channels) {
    std::fill(destination, destination + size_t(frames) * channels, 0);
}

SineInput::SineInput(double frequencyHz, double amplitude)
    : mFrequency(frequencyHz), mAmplitude(amplitude) {}

void SineInput::configure(uint32_t rate, uint32_t) {
    if (rate)
        mRate = rate;
}

void SineInput::read(int32_t* destination, uint32_t frames, uint32_t channels) {
    const double step = mFrequency / mRate;
    for (uint32_t f = 0; f < frames; ++f) {
        fillFrame(destination + size_t(f) * channels, channels,
                  toWorking(mAmplitude * std::sin(kTwoPi * mPhase)));
        mPhase += step;
        mPhase -= std::floor(mPhase);
    }
}

std::string SineInput::describe() const {
    return "sine " + number(mFrequency) + " Hz, amplitude " + number(mAmplitude);
}

SweepInput::SweepInput(double startHz, double endHz, double seconds, double amplitude,
                       bool logarithmic)
    : mStart(startHz), mEnd(endHz), mSeconds(seconds), mAmplitude(amplitude), mLog(logarithmic) {}

void SweepInput::configure(uint32_t rate, uint32_t) {
    if (rate)
        mRate = rate;
}

double SweepInput::frequencyAt(double t) const {
    if (mSeconds <= 0)
        return mStart;
    t = std::fmod(t, mSeconds) / mSeconds;
    if (mLog && mStart > 0 && mEnd > 0)
        return mStart * std::pow(mEnd / mStart, t);
    return mStart + (mEnd - mStart) * t;
}

void SweepInput::read(int32_t* destination, uint32_t frames, uint32_t channels) {
    for (uint32_t f = 0; f < frames; ++f) {
        fillFrame(destination + size_t(f) * channels, channels,
                  toWorking(mAmplitude * std::sin(kTwoPi * mPhase)));
        mPhase += frequencyAt(double(mFrame) / mRate) / mRate;
        mPhase -= std::floor(mPhase);
        ++mFrame;
    }
}

std::string SweepInput::describe() const {
    return std::string(mLog ? "log" : "linear") + " sweep " + number(mStart) + " to " +
           number(mEnd) + " Hz in " + number(mSeconds) + " s";
}

int32_t PatternInput::sample(uint64_t frame, uint32_t channel) {
    return int32_t((uint32_t(frame & 0xFFFF) << 16) | ((channel & 0xFF) << 8));
}

void PatternInput::read(int32_t* destination, uint32_t frames, uint32_t channels) {
    for (uint32_t f = 0; f < frames; ++f, ++mFrame)
        for (uint32_t c = 0; c < channels; ++c)
            destination[size_t(f) * channels + c] = sample(mFrame, c);
}

WavFileInput::WavFileInput(const std::string& path, bool loop) : mPath(path), mLoop(loop) {
    SF_INFO info{};
    mFile = sf_open(path.c_str(), SFM_READ, &info);
    if (!mFile)
        throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    if (info.channels < 1 || info.samplerate < 1) {
        sf_close(mFile);
        mFile = nullptr;
        throw std::runtime_error(path + ": no audio in the file");
    }
    mFileRate = uint32_t(info.samplerate);
    mFileChannels = uint32_t(info.channels);
    mFinished = info.frames == 0;
}

WavFileInput::~WavFileInput() {
    if (mFile)
        sf_close(mFile);
}

void WavFileInput::read(int32_t* destination, uint32_t frames, uint32_t channels) {
    std::fill(destination, destination + size_t(frames) * channels, 0);
    mBuffer.resize(size_t(frames) * mFileChannels);
    uint32_t done = 0;
    bool rewound = false; // a second empty read right after rewinding ends the file for good
    while (done < frames && !mFinished) {
        sf_count_t got =
            sf_readf_int(mFile, mBuffer.data() + size_t(done) * mFileChannels, frames - done);
        if (got > 0) {
            done += uint32_t(got);
            rewound = false;
            continue;
        }
        if (!mLoop || rewound || sf_seek(mFile, 0, SEEK_SET) != 0) {
            mFinished = true;
            break;
        }
        rewound = true;
    }
    const uint32_t common = std::min(channels, mFileChannels);
    for (uint32_t f = 0; f < done; ++f)
        for (uint32_t c = 0; c < common; ++c)
            destination[size_t(f) * channels + c] = mBuffer[size_t(f) * mFileChannels + c];
}

std::string WavFileInput::describe() const {
    return "file " + mPath + " (" + std::to_string(mFileChannels) + " channels, " +
           std::to_string(mFileRate) + " Hz" + (mLoop ? ", looping)" : ")");
}

void MemoryOutput::configure(uint32_t rate, uint32_t channels) {
    if (mChannels == 0) {
        mChannels = std::max<uint32_t>(channels, 1);
        mRate = rate;
    }
}

void MemoryOutput::write(const int32_t* source, uint32_t frames, uint32_t channels) {
    if (mChannels == 0)
        configure(mRate, channels);
    const size_t base = mSamples.size();
    mSamples.resize(base + size_t(frames) * mChannels, 0);
    const uint32_t common = std::min(channels, mChannels);
    for (uint32_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < common; ++c)
            mSamples[base + size_t(f) * mChannels + c] = source[size_t(f) * channels + c];
}

WavFileOutput::WavFileOutput(const std::string& path, uint32_t bits)
    : mPath(path), mPartPath(path + ".part"), mBits(bits) {
    if (bits != 16 && bits != 24 && bits != 32)
        throw std::invalid_argument("WAV output: " + std::to_string(bits) +
                                    " bits, use 16, 24 or 32");
    if (path.empty())
        throw std::invalid_argument("WAV output: no file name");
}

WavFileOutput::~WavFileOutput() {
    if (mFile) {
        sf_close(mFile);
        std::remove(mPartPath.c_str());
    }
}

void WavFileOutput::configure(uint32_t rate, uint32_t channels) {
    if (mFile || mFinished)
        return; // the file keeps the layout it was opened with
    SF_INFO info{};
    info.samplerate = int(rate);
    info.channels = int(std::max<uint32_t>(channels, 1));
    info.format = SF_FORMAT_WAV | (mBits == 16   ? SF_FORMAT_PCM_16
                                   : mBits == 24 ? SF_FORMAT_PCM_24
                                                 : SF_FORMAT_PCM_32);
    mFile = sf_open(mPartPath.c_str(), SFM_WRITE, &info);
    if (!mFile)
        throw std::runtime_error(mPath + ": " + sf_strerror(nullptr));
    mChannels = uint32_t(info.channels);
}

void WavFileOutput::write(const int32_t* source, uint32_t frames, uint32_t channels) {
    if (mFinished)
        return;
    if (!mFile)
        configure(48000, channels);
    mBuffer.assign(size_t(frames) * mChannels, 0);
    const uint32_t common = std::min(channels, mChannels);
    for (uint32_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < common; ++c)
            mBuffer[size_t(f) * mChannels + c] = source[size_t(f) * channels + c];
    if (sf_writef_int(mFile, mBuffer.data(), frames) != sf_count_t(frames))
        throw std::runtime_error(mPath + ": " + sf_strerror(mFile));
    mFrames += frames;
}

void WavFileOutput::finish() {
    if (!mFile)
        return;
    mFinished = true;
    sf_write_sync(mFile);
    int rc = sf_close(mFile);
    mFile = nullptr;
    if (rc != 0) {
        std::remove(mPartPath.c_str());
        throw std::runtime_error(mPath + ": " + sf_error_number(rc));
    }
    if (std::rename(mPartPath.c_str(), mPath.c_str()) != 0) {
        std::remove(mPartPath.c_str());
        throw std::runtime_error(
            mPath + ": cannot move the finished file into place: " + std::strerror(errno));
    }
}

std::string WavFileOutput::describe() const {
    return "file " + mPath + " (" + std::to_string(mBits) + "-bit WAV)";
}

LoopbackBackend::LoopbackBackend(uint32_t latencyFrames)
    : mLatency(latencyFrames), mFrames(size_t(latencyFrames) + kSlackFrames) {
    setWidth(2);
    mTail = latencyFrames; // the first latencyFrames frames are the silence already in the ring
}

void LoopbackBackend::setWidth(uint32_t channels) {
    channels = std::clamp<uint32_t>(channels, 1, kMaxChannels);
    if (channels == mWidth)
        return;
    std::vector<int32_t> ring(mFrames * channels, 0);
    const uint32_t common = std::min(channels, mWidth);
    for (uint64_t f = mHead; f < mTail; ++f) {
        const size_t slot = size_t(f % mFrames);
        std::memcpy(&ring[slot * channels], &mRing[slot * mWidth], common * sizeof(int32_t));
    }
    mRing.swap(ring);
    mWidth = channels;
}

void LoopbackBackend::clear() {
    std::fill(mRing.begin(), mRing.end(), 0);
    mTail = mHead + mLatency;
}

void LoopbackBackend::configure(uint32_t, uint32_t channels) {
    setWidth(channels);
}

void LoopbackBackend::read(int32_t* destination, uint32_t frames, uint32_t channels) {
    const uint64_t ready = std::min<uint64_t>(frames, mTail - mHead);
    const uint32_t common = std::min(channels, mWidth);
    for (uint64_t done = 0; done < ready;) {
        const size_t slot = size_t((mHead + done) % mFrames);
        const size_t piece = size_t(std::min<uint64_t>(ready - done, mFrames - slot));
        int32_t* out = destination + size_t(done) * channels;
        const int32_t* in = &mRing[slot * mWidth];
        if (channels == mWidth) {
            std::memcpy(out, in, piece * channels * sizeof(int32_t));
        } else {
            for (size_t f = 0; f < piece; ++f) {
                std::memcpy(out + f * channels, in + f * mWidth, common * sizeof(int32_t));
                std::fill(out + f * channels + common, out + (f + 1) * channels, 0);
            }
        }
        done += piece;
    }
    mHead += ready;
    if (ready < frames) {
        std::fill(destination + size_t(ready) * channels, destination + size_t(frames) * channels,
                  0);
        mUnderruns += frames - ready;
    }
}

void LoopbackBackend::write(const int32_t* source, uint32_t frames, uint32_t channels) {
    if (channels == 0)
        return;
    if (channels != mWidth && channels <= kMaxChannels)
        setWidth(channels);
    if (frames > mFrames) {
        // Only the newest mFrames of them can be heard.
        mOverflows += frames - mFrames;
        source += size_t(frames - mFrames) * channels;
        frames = uint32_t(mFrames);
    }
    const uint64_t room = mFrames - (mTail - mHead);
    if (frames > room) {
        mHead += frames - room; // the listener is that far behind: its oldest frames are lost
        mOverflows += frames - room;
    }
    const uint32_t common = std::min(channels, mWidth);
    for (uint32_t done = 0; done < frames;) {
        const size_t slot = size_t((mTail + done) % mFrames);
        const size_t piece = std::min<size_t>(frames - done, mFrames - slot);
        const int32_t* in = source + size_t(done) * channels;
        int32_t* out = &mRing[slot * mWidth];
        if (channels == mWidth) {
            std::memcpy(out, in, piece * channels * sizeof(int32_t));
        } else {
            for (size_t f = 0; f < piece; ++f)
                std::memcpy(out + f * mWidth, in + f * channels, common * sizeof(int32_t));
        }
        done += uint32_t(piece);
    }
    mTail += frames;
}

std::string LoopbackBackend::describe() const {
    return "loopback, " + std::to_string(mLatency) + " frames";
}

namespace {

std::vector<std::string> splitDescription(const std::string& description) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        size_t colon = description.find(':', start);
        parts.push_back(description.substr(start, colon - start));
        if (colon == std::string::npos)
            break;
        start = colon + 1;
    }
    return parts;
}

double parseNumber(const std::string& text, const std::string& description, const char* what) {
    size_t used = 0;
    double v = 0;
    try {
        v = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (text.empty() || used != text.size() || !std::isfinite(v))
        throw std::invalid_argument("input \"" + description + "\": " + what + " \"" + text +
                                    "\" is not a number");
    return v;
}

// The path is everything after the first colon (paths may contain colons).
std::string pathOf(const std::string& description, const char* kind) {
    size_t colon = description.find(':');
    std::string path = colon == std::string::npos ? "" : description.substr(colon + 1);
    if (path.empty())
        throw std::invalid_argument(std::string(kind) + " \"" + description + "\": no file name");
    return path;
}

} // namespace

std::shared_ptr<InputBackend> makeInput(const std::string& description) {
    const std::vector<std::string> p = splitDescription(description);
    const std::string& kind = p[0];
    if (kind == "silence" && p.size() == 1)
        return std::make_shared<SilenceInput>();
    if (kind == "pattern" && p.size() == 1)
        return std::make_shared<PatternInput>();
    if (kind == "sine" && p.size() <= 3) {
        double hz = p.size() > 1 ? parseNumber(p[1], description, "frequency") : 1000.0;
        double amp = p.size() > 2 ? parseNumber(p[2], description, "amplitude") : 0.5;
        if (hz <= 0)
            throw std::invalid_argument("input \"" + description + "\": frequency must be above 0");
        if (amp < 0 || amp > 1)
            throw std::invalid_argument("input \"" + description + "\": amplitude must be 0..1");
        return std::make_shared<SineInput>(hz, amp);
    }
    if (kind == "sweep" && (p.size() == 1 || p.size() == 3 || p.size() == 4)) {
        double from = p.size() > 1 ? parseNumber(p[1], description, "start frequency") : 20.0;
        double to = p.size() > 2 ? parseNumber(p[2], description, "end frequency") : 20000.0;
        double seconds = p.size() > 3 ? parseNumber(p[3], description, "duration") : 5.0;
        if (from <= 0 || to <= 0 || seconds <= 0)
            throw std::invalid_argument("input \"" + description +
                                        "\": frequencies and duration must be above 0");
        return std::make_shared<SweepInput>(from, to, seconds, 0.5, true);
    }
    if (kind == "wav")
        return std::make_shared<WavFileInput>(pathOf(description, "input"), false);
    if (kind == "wavloop")
        return std::make_shared<WavFileInput>(pathOf(description, "input"), true);
    throw std::invalid_argument("input \"" + description +
                                "\": use silence, pattern, sine[:HZ[:AMPLITUDE]], "
                                "sweep[:FROM:TO[:SECONDS]], wav:PATH or wavloop:PATH");
}

std::shared_ptr<OutputBackend> makeOutput(const std::string& description) {
    if (description == "null")
        return std::make_shared<NullOutput>();
    const std::string kind = description.substr(0, description.find(':'));
    if (kind == "wav" || kind == "wav24")
        return std::make_shared<WavFileOutput>(pathOf(description, "output"), 24);
    if (kind == "wav16")
        return std::make_shared<WavFileOutput>(pathOf(description, "output"), 16);
    if (kind == "wav32")
        return std::make_shared<WavFileOutput>(pathOf(description, "output"), 32);
    throw std::invalid_argument("output \"" + description +
                                "\": use null, wav:PATH, wav16:PATH or "
                                "wav32:PATH");
}

} // namespace usbsim
