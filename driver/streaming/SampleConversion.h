// Sample conversion between the rings' 32-bit frames and a stream's packed
// little-endian PCM of 16, 24 or 32 bits.
//
// Working format: signed 32-bit, left-justified (a 16-bit s is s << 16, a
// 24-bit s is s << 8); the capture ring uses it. The render ring holds the
// working format shifted right arithmetically by 8 (shiftRight8). Narrowing
// truncates (takes the most significant bits); nothing rounds, dithers or
// clips. Channel j of the stream is channel j of the ring; capture drops the
// ring's extra channels, render pads them with zeros.
//
// Every kernel tolerates absent buffers and zero counts by doing nothing,
// never reads past the last byte of its source, allocates nothing and takes
// no lock: callable at any IRQL up to dispatch level.
#pragma once

#include "../platform/platform.h"

// Ring frames -> stream PCM. source holds frames x ringChannels working-format
// samples and is compacted in place (its first frames x wdmChannels samples
// are the kept channels afterwards); destination receives frames x
// wdmChannels samples of wdmBits. Does nothing unless both buffers exist,
// the counts are nonzero and ringChannels >= wdmChannels. A width other than
// 16, 24 or 32 compacts the source and writes nothing.
void convertInput(ULONG frames, LONG* source, ULONG ringChannels, void* destination,
                  ULONG wdmChannels, ULONG wdmBits);

// Stream PCM -> ring frames in the working format. source holds frames x
// wdmChannels samples of wdmBits; destination receives frames x ringChannels
// samples, channels from wdmChannels on set to 0. Same refusals as
// convertInput. A width other than 16, 24 or 32 converts nothing but still
// pads the destination's frames.
void convertOutput(ULONG frames, const void* source, ULONG wdmChannels, ULONG wdmBits,
                   LONG* destination, ULONG ringChannels);

// The period path's single passes, between ring frames (in place in a ring)
// and stream PCM, with no buffer in between:
//
// Capture: frames ring frames of ringChannels working-format samples ->
// frames x wdmChannels samples of wdmBits; ring channels from wdmChannels
// on are skipped. Leaves the ring alone.
void ringToPcm(ULONG frames, const LONG* ring, ULONG ringChannels, void* pcm, ULONG wdmChannels,
               ULONG wdmBits);
// Render: frames x wdmChannels samples of wdmBits -> frames ring frames of
// ringChannels samples in the render ring's format (convertOutput followed
// by shiftRight8); ring channel firstChannel + j carries stream channel j,
// every other ring channel is 0.
//
// Both do nothing unless both buffers exist, the counts are nonzero, the
// stream fits the ring (firstChannel + wdmChannels <= ringChannels) and
// wdmBits is 16, 24 or 32.
void pcmToRing(ULONG frames, const void* pcm, ULONG wdmChannels, ULONG wdmBits, LONG* ring,
               ULONG ringChannels, ULONG firstChannel);

// In place: each of count samples shifted right arithmetically by 8.
void shiftRight8(LONG* samples, ULONG count);

// In place, front to back: of every frame of keep + drop samples keeps the
// first keep; the result is frames x keep packed samples at the start.
void dropExtraChannels(LONG* buffer, ULONG frames, ULONG keep, ULONG drop);

// In place, back to front: frames x keep packed samples at the start become
// frames of keep + pad samples whose last pad samples are 0.
void padExtraChannels(LONG* buffer, ULONG frames, ULONG keep, ULONG pad);

// count samples: bits 16..31 of each as 16-bit little-endian.
void int32ToPcm16(void* destination, const LONG* source, ULONG count);

// count samples: bits 8..31 of each as 3 little-endian bytes.
void int32ToPcm24(void* destination, const LONG* source, ULONG count);

// byteCount / 2 samples (rounded down): each s becomes s << 16.
void pcm16ToInt32(LONG* destination, const void* source, ULONG byteCount);

// byteCount / 3 samples (rounded down): bytes b0 b1 b2 become b2:b1:b0:00.
void pcm24ToInt32(LONG* destination, const void* source, ULONG byteCount);

// The 24-bit kernels use SSSE3 byte shuffles when the processor has them.
// true restricts every kernel to the x64 baseline (SSE2) code; for tests
// and benchmarks that compare the two. Default false.
void setConversionBaselineOnly(bool on);
