// The shared-memory sample ring (one layout for capture and render), its
// clock blocks and the lock-free ring operations. One writer and one reader
// per ring; positions are u32 frame counts wrapping modulo 2^32. Positions
// are published with release stores and read with acquire loads.
#pragma once

#include "../platform/platform.h"

constexpr ULONG nMaxSamples = 131072;

struct AudioSMClock {
    ULONG framePos;
    ULONG reserved0;
    LONGLONG stamp;
    LONGLONG reserved1;
    LONGLONG rateNum;
    LONGLONG rateDen; // 0: the block holds no mapping

    // stamp + ((P - framePos) * rateNum) / rateDen in signed 64 bits; 0 when rateDen is 0.
    LONGLONG stampOf(ULONG position) const;
};

// Sample-copy routine for AudioSM::readFrames: (destination, source, sampleCount).
typedef void (*AudioSMCopy)(LONG* destination, const LONG* source, ULONG count);
void copySamples(LONG* destination, const LONG* source, ULONG count);
void zeroSamples(LONG* destination, const LONG* source, ULONG count);

struct AudioSM {
    LONG mSamples[nMaxSamples];
    ULONG mChannelsPerFrame;
    ULONG mMaxFrames;
    UCHAR reserved0[4120];
    ULONGLONG mExclInputs;
    ULONG mWritePos;
    ULONG mWriteOffset;
    UCHAR reserved1[8];
    AudioSMClock mClockA;
    AudioSMClock mClockB;
    UCHAR reserved2[44];
    ULONG mClockSelect;
    UCHAR reserved3[4];
    ULONG mMMEReadPos;

    // Header invariants: channels >= 1, frames >= 1, frames x channels <= nMaxSamples.
    bool isUsable() const;
    // Reads the header once; false (and nothing stored) when it breaks the invariants.
    bool shape(ULONG* channels, ULONG* maxFrames) const;

    // A ring whose header breaks the invariants, or (when expectedChannels is
    // nonzero) no longer has that many channels, is left alone: nothing is
    // copied and no position moves.
    ULONG framesAvailable(ULONG readPos) const;
    void writeFrames(const LONG* source, ULONG frames, ULONG writeOffset,
                     ULONG expectedChannels = 0);
    void writeSilence(ULONG frames, ULONG writeOffset, ULONG expectedChannels = 0);
    void readFrames(ULONG& readPos, LONG* destination, ULONG frames, AudioSMCopy copy,
                    ULONG expectedChannels = 0) const;
    const AudioSMClock& currentClock() const;
};

constexpr ULONG MME_RING_NOT_ATTACHED = 0xFFFFFFFF;

MME_CHECK_SIZE(AudioSMClock, 40);
MME_CHECK_OFFSET(AudioSMClock, stamp, 8);
MME_CHECK_OFFSET(AudioSMClock, rateNum, 24);
MME_CHECK_OFFSET(AudioSMClock, rateDen, 32);
MME_CHECK_OFFSET(AudioSM, mChannelsPerFrame, 0x80000);
MME_CHECK_OFFSET(AudioSM, mMaxFrames, 0x80004);
MME_CHECK_OFFSET(AudioSM, mExclInputs, 0x81020);
MME_CHECK_OFFSET(AudioSM, mWritePos, 0x81028);
MME_CHECK_OFFSET(AudioSM, mWriteOffset, 0x8102C);
MME_CHECK_OFFSET(AudioSM, mClockA, 0x81038);
MME_CHECK_OFFSET(AudioSM, mClockB, 0x81060);
MME_CHECK_OFFSET(AudioSM, mClockSelect, 0x810B4);
MME_CHECK_OFFSET(AudioSM, mMMEReadPos, 0x810BC);
MME_CHECK_SIZE(AudioSM, 0x810C0);
