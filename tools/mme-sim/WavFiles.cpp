// WAV reading and writing for mme-sim through libsndfile.
#include "WavFiles.h"

#include <sndfile.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sys/stat.h>

namespace mmesim {

std::string unreadableReason(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return path + ": " + (errno == ENOENT ? std::string("no such file") : std::strerror(errno));
    if (S_ISDIR(st.st_mode))
        return path + ": is a directory";
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return path + ": cannot be read: " + std::strerror(errno);
    return std::string();
}

namespace {

const char* subtypeName(int subtype) {
    switch (subtype) {
    case SF_FORMAT_PCM_S8:
        return "8-bit signed PCM";
    case SF_FORMAT_PCM_U8:
        return "8-bit unsigned PCM";
    case SF_FORMAT_FLOAT:
        return "32-bit float";
    case SF_FORMAT_DOUBLE:
        return "64-bit float";
    case SF_FORMAT_ULAW:
        return "u-law";
    case SF_FORMAT_ALAW:
        return "A-law";
    case SF_FORMAT_IMA_ADPCM:
    case SF_FORMAT_MS_ADPCM:
        return "ADPCM";
    case SF_FORMAT_GSM610:
        return "GSM 6.10";
    }
    return "a sample encoding other than PCM";
}

} // namespace

WavReader::WavReader(const std::string& path) : mPath(path) {
    std::string why = unreadableReason(path);
    if (!why.empty())
        throw FileError(why);
    SF_INFO info{};
    mFile = sf_open(path.c_str(), SFM_READ, &info);
    if (!mFile)
        throw FileError(path + ": not a sound file mme-sim can read (" + sf_strerror(nullptr) +
                        ")");
    const int major = info.format & SF_FORMAT_TYPEMASK;
    const int subtype = info.format & SF_FORMAT_SUBMASK;
    std::string problem;
    if (major != SF_FORMAT_WAV && major != SF_FORMAT_WAVEX && major != SF_FORMAT_RF64)
        problem = "not a WAV file";
    else if (subtype == SF_FORMAT_PCM_16)
        mFormat.bits = 16;
    else if (subtype == SF_FORMAT_PCM_24)
        mFormat.bits = 24;
    else if (subtype == SF_FORMAT_PCM_32)
        mFormat.bits = 32;
    else
        problem = std::string("unsupported WAV: ") + subtypeName(subtype) +
                  " (mme-sim plays 16-, 24- and 32-bit PCM)";
    if (problem.empty() && (info.channels < 1 || info.channels > 32))
        problem = "unsupported WAV: " + std::to_string(info.channels) + " channels";
    if (problem.empty() && info.samplerate < 1)
        problem = "unsupported WAV: no sample rate";
    if (problem.empty() && info.frames <= 0)
        problem = "no audio frames in the file";
    if (!problem.empty()) {
        sf_close(mFile);
        mFile = nullptr;
        throw FileError(path + ": " + problem);
    }
    mFormat.rate = uint32_t(info.samplerate);
    mFormat.channels = uint16_t(info.channels);
    mFrames = uint64_t(info.frames);
}

WavReader::~WavReader() {
    if (mFile)
        sf_close(mFile);
}

void WavReader::seek(uint64_t frame) {
    if (sf_seek(mFile, sf_count_t(frame), SEEK_SET) != sf_count_t(frame))
        throw FileError(mPath + ": cannot go back to frame " + std::to_string(frame));
}

size_t WavReader::read(uint8_t* destination, size_t frames) {
    mBuffer.resize(frames * mFormat.channels);
    const sf_count_t got = sf_readf_int(mFile, mBuffer.data(), sf_count_t(frames));
    if (got < 0 || sf_error(mFile) != SF_ERR_NO_ERROR)
        throw FileError(mPath + ": read failed: " + sf_strerror(mFile));
    const unsigned shift = 32 - mFormat.bits; // libsndfile hands samples left-justified
    const unsigned bytes = mFormat.bits / 8;
    for (size_t i = 0; i < size_t(got) * mFormat.channels; ++i)
        packSample(destination + i * bytes, mFormat.bits, mBuffer[i] >> shift);
    return size_t(got);
}

WavWriter::WavWriter(const std::string& path, const Format& format)
    : mPath(path), mPartPath(path + ".part"), mFormat(format) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw FileError(path + ": is a directory");
    SF_INFO info{};
    info.samplerate = int(format.rate);
    info.channels = int(format.channels);
    info.format = SF_FORMAT_WAV | (format.bits == 16   ? SF_FORMAT_PCM_16
                                   : format.bits == 24 ? SF_FORMAT_PCM_24
                                                       : SF_FORMAT_PCM_32);
    mFile = sf_open(mPartPath.c_str(), SFM_WRITE, &info);
    if (!mFile)
        throw FileError(path + ": cannot be written (" + sf_strerror(nullptr) + ")");
}

WavWriter::~WavWriter() {
    if (mFile) {
        sf_close(mFile);
        std::remove(mPartPath.c_str());
    }
}

void WavWriter::write(const uint8_t* pcm, size_t frames) {
    const size_t samples = frames * mFormat.channels;
    mBuffer.resize(samples);
    const unsigned shift = 32 - mFormat.bits;
    const unsigned bytes = mFormat.bits / 8;
    for (size_t i = 0; i < samples; ++i)
        mBuffer[i] = int(uint32_t(unpackSample(pcm + i * bytes, mFormat.bits)) << shift);
    if (sf_writef_int(mFile, mBuffer.data(), sf_count_t(frames)) != sf_count_t(frames))
        throw FileError(mPath + ": write failed: " + sf_strerror(mFile));
    mFrames += frames;
}

void WavWriter::commit() {
    if (!mFile)
        return;
    const int rc = sf_close(mFile);
    mFile = nullptr;
    if (rc != 0) {
        std::remove(mPartPath.c_str());
        throw FileError(mPath + ": " + sf_error_number(rc));
    }
    if (std::rename(mPartPath.c_str(), mPath.c_str()) != 0) {
        const int err = errno;
        std::remove(mPartPath.c_str());
        throw FileError(mPath +
                        ": cannot move the finished file into place: " + std::strerror(err));
    }
}

} // namespace mmesim
