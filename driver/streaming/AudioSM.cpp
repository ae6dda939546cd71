// Operations on the shared sample ring (layout in common/AudioSM.h).
//
// Contract: one writer and one reader per ring, no lock. The writer stores
// mWriteOffset, then the samples, then publishes mWritePos with a release
// store; readers load positions with acquire. Every operation reads the
// header once and refuses (changes nothing) when it breaks the invariants,
// so a ring the USB driver has not set up never causes a division by zero or
// an access outside mSamples. Callable at any IRQL up to dispatch level; no
// allocation, no lock.
#include "../common/AudioSM.h"

namespace {

struct RingShape {
    ULONG channels;
    ULONG maxFrames;
    bool usable;
};

// The USB driver may rewrite the header while we run; read each field once.
RingShape shapeOf(const AudioSM& ring) {
    RingShape s;
    s.channels = MMELoadOnce(&ring.mChannelsPerFrame);
    s.maxFrames = MMELoadOnce(&ring.mMaxFrames);
    s.usable = s.channels >= 1 && s.maxFrames >= 1 &&
               (ULONGLONG)s.channels * (ULONGLONG)s.maxFrames <= (ULONGLONG)nMaxSamples;
    return s;
}

// A caller that sized its buffers for expectedChannels must not see a ring
// whose header changed since it looked.
bool refused(const RingShape& s, ULONG expectedChannels) {
    return !s.usable || (expectedChannels != 0 && s.channels != expectedChannels);
}

} // namespace

void copySamples(LONG* destination, const LONG* source, ULONG count) {
    if (!destination || !source || count == 0)
        return;
    memcpy(destination, source, (SIZE_T)count * sizeof(LONG));
}

void zeroSamples(LONG* destination, const LONG* source, ULONG count) {
    (void)source;
    if (!destination || count == 0)
        return;
    memset(destination, 0, (SIZE_T)count * sizeof(LONG));
}

LONGLONG AudioSMClock::stampOf(ULONG position) const {
    if (rateDen == 0)
        return 0;
    LONGLONG difference = (LONGLONG)position - (LONGLONG)framePos;
    // Two's-complement wrap instead of undefined overflow for absurd rates.
    LONGLONG product = (LONGLONG)((ULONGLONG)difference * (ULONGLONG)rateNum);
    LONGLONG quotient;
    if (rateDen == -1)
        quotient = (LONGLONG)(0 - (ULONGLONG)product); // INT64_MIN / -1 would trap
    else
        quotient = product / rateDen;
    return (LONGLONG)((ULONGLONG)stamp + (ULONGLONG)quotient);
}

bool AudioSM::isUsable() const {
    return shapeOf(*this).usable;
}

bool AudioSM::shape(ULONG* channels, ULONG* maxFrames) const {
    RingShape s = shapeOf(*this);
    if (!s.usable)
        return false;
    if (channels)
        *channels = s.channels;
    if (maxFrames)
        *maxFrames = s.maxFrames;
    return true;
}

const AudioSMClock& AudioSM::currentClock() const {
    return MMELoadAcquire(&mClockSelect) != 0 ? mClockA : mClockB;
}

ULONG AudioSM::framesAvailable(ULONG readPos) const {
    ULONG writePos = MMELoadAcquire(&mWritePos);
    ULONG writeOffset = MMELoadAcquire(&mWriteOffset);
    return writePos + writeOffset - readPos;
}

namespace {

// Fills frames starting at ring index `index` from source (zeros when source
// is null), in at most two pieces. frames <= maxFrames.
void fillRing(AudioSM& ring, const RingShape& s, ULONG index, const LONG* source, ULONG frames) {
    ULONG room = s.maxFrames - index;
    ULONG first = frames <= room ? frames : room;
    LONG* at = ring.mSamples + (SIZE_T)index * s.channels;
    SIZE_T firstSamples = (SIZE_T)first * s.channels;
    if (source)
        memcpy(at, source, firstSamples * sizeof(LONG));
    else
        memset(at, 0, firstSamples * sizeof(LONG));
    if (frames > first) {
        SIZE_T restSamples = (SIZE_T)(frames - first) * s.channels;
        if (source)
            memcpy(ring.mSamples, source + firstSamples, restSamples * sizeof(LONG));
        else
            memset(ring.mSamples, 0, restSamples * sizeof(LONG));
    }
}

} // namespace

void AudioSM::writeFrames(const LONG* source, ULONG frames, ULONG writeOffset,
                          ULONG expectedChannels) {
    RingShape s = shapeOf(*this);
    if (refused(s, expectedChannels))
        return;
    // More frames than the ring holds would overwrite themselves; refuse.
    if (source && frames > s.maxFrames)
        return;
    MMEStoreRelease(&mWriteOffset, writeOffset);
    ULONG writePos = MMELoadOnce(&mWritePos); // we are the writer
    if (source && frames != 0)
        fillRing(*this, s, (writePos + writeOffset) % s.maxFrames, source, frames);
    MMEStoreRelease(&mWritePos, writePos + frames);
}

void AudioSM::writeSilence(ULONG frames, ULONG writeOffset, ULONG expectedChannels) {
    RingShape s = shapeOf(*this);
    if (refused(s, expectedChannels))
        return;
    MMEStoreRelease(&mWriteOffset, writeOffset);
    ULONG writePos = MMELoadOnce(&mWritePos);
    if (frames != 0) {
        // A silence longer than the ring silences all of it.
        ULONG fill = frames <= s.maxFrames ? frames : s.maxFrames;
        fillRing(*this, s, (writePos + writeOffset) % s.maxFrames, nullptr, fill);
    }
    MMEStoreRelease(&mWritePos, writePos + frames);
}

void AudioSM::readFrames(ULONG& readPos, LONG* destination, ULONG frames, AudioSMCopy copy,
                         ULONG expectedChannels) const {
    RingShape s = shapeOf(*this);
    if (refused(s, expectedChannels))
        return;
    bool copying = destination && copy;
    if (copying && frames > s.maxFrames)
        return;
    if (copying && frames != 0) {
        // Pairs with the writer's release of mWritePos: its samples are visible.
        (void)MMELoadAcquire(&mWritePos);
        ULONG index = readPos % s.maxFrames;
        ULONG room = s.maxFrames - index;
        const LONG* at = mSamples + (SIZE_T)index * s.channels;
        if (frames <= room) {
            copy(destination, at, frames * s.channels);
        } else {
            copy(destination, at, room * s.channels);
            copy(destination + (SIZE_T)room * s.channels, mSamples, (frames - room) * s.channels);
        }
    }
    readPos += frames;
}
