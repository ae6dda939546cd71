// Conversion kernels (contract in SampleConversion.h).
//
// The hot loops work on GCC/Clang vector types of 16 bytes (SSE2, which
// kernel code on x64 may use without saving state) and on 64-bit words for
// the 24-bit packing, with a scalar tail. Element loads and stores go
// through __builtin_memcpy: no alignment is assumed, no type punning is
// undefined, and the kernel build (-fno-builtin) still gets single moves
// instead of calls. Zeroing is written as explicit stores so the compiler
// does not turn it into a memset call per frame.
#include "SampleConversion.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "PCM and rings are little-endian");

namespace {

typedef int v4si __attribute__((vector_size(16)));
typedef short v8hi __attribute__((vector_size(16)));

template <typename T> inline T load(const void* p) {
    T v;
    __builtin_memcpy(&v, p, sizeof(T));
    return v;
}

template <typename T> inline void store(void* p, T v) {
    __builtin_memcpy(p, &v, sizeof(T));
}

// n zero samples at p.
inline void zeroFill(LONG* p, SIZE_T n) {
    const v4si zero = {0, 0, 0, 0};
    for (; n >= 8; n -= 8, p += 8) {
        store(p, zero);
        store(p + 4, zero);
    }
    if (n & 4) {
        store(p, zero);
        p += 4;
    }
    if (n & 2) {
        store(p, (ULONGLONG)0);
        p += 2;
    }
    if (n & 1)
        *p = 0;
}

// Largest sample count any kernel accepts: byte counts must stay in 32 bits.
constexpr ULONGLONG kMaxSamples = 0xFFFFFFFFull / 4;

inline bool countsFit(ULONG frames, ULONG channels) {
    return (ULONGLONG)frames * channels <= kMaxSamples;
}

inline bool overlap(const void* a, SIZE_T aBytes, const void* b, SIZE_T bBytes) {
    ULONG_PTR x = (ULONG_PTR)a, y = (ULONG_PTR)b;
    return x < y + bBytes && y < x + aBytes;
}

// One WDM sample at p in the working format.
inline LONG from16(const UCHAR* p) {
    return (LONG)((ULONG)load<USHORT>(p) << 16);
}
inline LONG from24(const UCHAR* p) {
    return (LONG)(((ULONG)p[2] << 24) | ((ULONG)p[1] << 16) | ((ULONG)p[0] << 8));
}

// Two WDM samples of Bytes each at p, in the working format, as one word.
template <ULONG Bytes> inline ULONGLONG pairAt(const UCHAR* p) {
    if (Bytes == 2) {
        ULONG w = load<ULONG>(p);
        return ((ULONGLONG)(w & 0xFFFF0000u) << 32) | (ULONG)(w << 16);
    }
    if (Bytes == 3) {
        ULONG lo = load<ULONG>(p);
        ULONG hi = load<USHORT>(p + 4);
        ULONG first = lo << 8;
        ULONG second = ((lo >> 24) << 8) | (hi << 16);
        return ((ULONGLONG)second << 32) | first;
    }
    return load<ULONGLONG>(p);
}

typedef ULONGLONG v2du __attribute__((vector_size(16)));

// One ring frame of Fixed samples (0: `stride`, known at run time only) whose
// first two are `pair` and the rest zero. From four samples on, the first
// 16-byte store carries the pair and two zeros.
template <ULONG Fixed> inline void pairFrame(LONG* out, ULONGLONG pair, SIZE_T stride) {
    const SIZE_T n = Fixed ? Fixed : stride;
    if (n >= 4) {
        v2du head = {pair, 0};
        store(out, head);
        zeroFill(out + 4, n - 4);
    } else {
        store(out, pair);
        if (n == 3)
            out[2] = 0;
    }
}

// A stereo stream into ring frames of `stride` (>= 3) samples. The common
// ring widths get loops of their own so the zeros are a fixed run of stores.
template <ULONG Bytes, ULONG Fixed>
void widenPairsAs(ULONG frames, const UCHAR* __restrict in, LONG* __restrict out, SIZE_T stride) {
    SIZE_T f = 0;
    if (Bytes == 3) {
        // Another frame follows, so the 8-byte load (2 bytes past this
        // pair) stays inside the source.
        for (; f + 1 < frames; ++f, in += 6, out += stride) {
            ULONGLONG w = load<ULONGLONG>(in);
            ULONGLONG pair = ((ULONGLONG)((ULONG)(w >> 16) & 0xFFFFFF00u) << 32) | (ULONG)(w << 8);
            pairFrame<Fixed>(out, pair, stride);
        }
    }
    for (; f < frames; ++f, in += 2 * Bytes, out += stride)
        pairFrame<Fixed>(out, pairAt<Bytes>(in), stride);
}

template <ULONG Bytes>
void widenPairs(ULONG frames, const UCHAR* __restrict in, LONG* __restrict out, ULONG stride) {
    if (stride == 8)
        widenPairsAs<Bytes, 8>(frames, in, out, 8);
    else if (stride == 32)
        widenPairsAs<Bytes, 32>(frames, in, out, 32);
    else
        widenPairsAs<Bytes, 0>(frames, in, out, stride);
}

// Stream PCM straight into ring frames of `stride` samples whose channels
// from `keep` on are zero: convertOutput for separate buffers, in one pass.
void widenInto(ULONG frames, const UCHAR* __restrict in, ULONG keep, ULONG bytesPerSample,
               LONG* __restrict out, ULONG stride) {
    if (keep == 2) {
        if (bytesPerSample == 2)
            widenPairs<2>(frames, in, out, stride);
        else if (bytesPerSample == 3)
            widenPairs<3>(frames, in, out, stride);
        else
            widenPairs<4>(frames, in, out, stride);
        return;
    }
    const SIZE_T frameBytes = (SIZE_T)keep * bytesPerSample;
    const SIZE_T pad = stride - keep;
    for (SIZE_T f = 0; f < frames; ++f, in += frameBytes, out += stride) {
        const UCHAR* s = in;
        for (ULONG j = 0; j < keep; ++j, s += bytesPerSample)
            out[j] = bytesPerSample == 2   ? from16(s)
                     : bytesPerSample == 3 ? from24(s)
                                           : load<LONG>(s);
        zeroFill(out + keep, pad);
    }
}

// ---- 24-bit packing with SSSE3 byte shuffles ----
// Chosen at run time: SSSE3 is not part of the x64 baseline. The shuffles
// use XMM registers only, like the SSE2 code.
#if defined(__x86_64__)
#define MME_SSSE3_PATH 1
typedef char v16qi __attribute__((vector_size(16)));

// -1: not asked yet; 0: baseline only; 1: SSSE3.
volatile LONG gSsse3 = -1;
volatile LONG gBaselineOnly = 0;

bool cpuHasSsse3() {
    ULONG a, b, c, d;
    __asm__ volatile("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(1), "c"(0));
    (void)a;
    (void)b;
    (void)d;
    return (c >> 9) & 1;
}

bool useSsse3() {
    if (__atomic_load_n(&gBaselineOnly, __ATOMIC_RELAXED))
        return false;
    LONG known = __atomic_load_n(&gSsse3, __ATOMIC_RELAXED);
    if (known < 0) {
        known = cpuHasSsse3() ? 1 : 0;
        __atomic_store_n(&gSsse3, known, __ATOMIC_RELAXED);
    }
    return known == 1;
}

// Packs whole groups of four samples while at least four more follow (each
// 16-byte store writes 4 bytes that the next group overwrites); returns the
// samples done.
__attribute__((target("ssse3"))) ULONG pack24Ssse3(UCHAR* out, const LONG* in, ULONG count) {
    const v16qi pick = {1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -128, -128, -128, -128};
    ULONG i = 0;
    for (; i + 20 <= count; i += 16) {
        v16qi a = load<v16qi>(in + i);
        v16qi b = load<v16qi>(in + i + 4);
        v16qi c = load<v16qi>(in + i + 8);
        v16qi d = load<v16qi>(in + i + 12);
        UCHAR* at = out + 3 * (SIZE_T)i;
        store(at, __builtin_ia32_pshufb128(a, pick));
        store(at + 12, __builtin_ia32_pshufb128(b, pick));
        store(at + 24, __builtin_ia32_pshufb128(c, pick));
        store(at + 36, __builtin_ia32_pshufb128(d, pick));
    }
    for (; i + 8 <= count; i += 4)
        store(out + 3 * (SIZE_T)i, __builtin_ia32_pshufb128(load<v16qi>(in + i), pick));
    return i;
}

// Unpacks groups of four samples while the 16-byte load stays inside the
// source (two more samples follow); returns the samples done.
__attribute__((target("ssse3"))) ULONG unpack24Ssse3(LONG* out, const UCHAR* in, ULONG count) {
    const v16qi place = {-128, 0, 1, 2, -128, 3, 4, 5, -128, 6, 7, 8, -128, 9, 10, 11};
    ULONG i = 0;
    for (; i + 18 <= count; i += 16) {
        const UCHAR* at = in + 3 * (SIZE_T)i;
        v16qi a = load<v16qi>(at);
        v16qi b = load<v16qi>(at + 12);
        v16qi c = load<v16qi>(at + 24);
        v16qi d = load<v16qi>(at + 36);
        store(out + i, __builtin_ia32_pshufb128(a, place));
        store(out + i + 4, __builtin_ia32_pshufb128(b, place));
        store(out + i + 8, __builtin_ia32_pshufb128(c, place));
        store(out + i + 12, __builtin_ia32_pshufb128(d, place));
    }
    for (; i + 6 <= count; i += 4)
        store(out + i, __builtin_ia32_pshufb128(load<v16qi>(in + 3 * (SIZE_T)i), place));
    return i;
}
#endif

} // namespace

void shiftRight8(LONG* samples, ULONG count) {
    if (!samples || count == 0)
        return;
    ULONG i = 0;
    for (; i + 8 <= count; i += 8) {
        v4si a = load<v4si>(samples + i);
        v4si b = load<v4si>(samples + i + 4);
        store(samples + i, a >> 8);
        store(samples + i + 4, b >> 8);
    }
    for (; i < count; ++i)
        samples[i] >>= 8;
}

void dropExtraChannels(LONG* buffer, ULONG frames, ULONG keep, ULONG drop) {
    if (!buffer || frames == 0 || drop == 0)
        return;
    const SIZE_T stride = (SIZE_T)keep + drop;
    // Destinations never pass their sources (dst <= src), and each frame is
    // loaded before it is stored, so front-to-back is safe in place.
    switch (keep) {
    case 0:
        return;
    case 1:
        for (SIZE_T f = 1; f < frames; ++f)
            buffer[f] = buffer[f * stride];
        return;
    case 2:
        for (SIZE_T f = 1; f < frames; ++f)
            store(buffer + 2 * f, load<ULONGLONG>(buffer + f * stride));
        return;
    case 4:
        for (SIZE_T f = 1; f < frames; ++f)
            store(buffer + 4 * f, load<v4si>(buffer + f * stride));
        return;
    case 8:
        for (SIZE_T f = 1; f < frames; ++f) {
            v4si a = load<v4si>(buffer + f * stride);
            v4si b = load<v4si>(buffer + f * stride + 4);
            store(buffer + 8 * f, a);
            store(buffer + 8 * f + 4, b);
        }
        return;
    default:
        for (SIZE_T f = 1; f < frames; ++f) {
            LONG* to = buffer + f * keep;
            const LONG* from = buffer + f * stride;
            for (SIZE_T j = 0; j < keep; ++j)
                to[j] = from[j];
        }
        return;
    }
}

void padExtraChannels(LONG* buffer, ULONG frames, ULONG keep, ULONG pad) {
    if (!buffer || frames == 0 || pad == 0)
        return;
    const SIZE_T stride = (SIZE_T)keep + pad;
    // Back to front: a frame's new place never lies below its old one, and
    // its zeros lie above every sample still to be moved. Each frame is
    // loaded before it is stored.
    switch (keep) {
    case 0:
        for (SIZE_T f = frames; f-- > 0;)
            zeroFill(buffer + f * stride, pad);
        return;
    case 1:
        for (SIZE_T f = frames; f-- > 0;) {
            LONG v = buffer[f];
            buffer[f * stride] = v;
            zeroFill(buffer + f * stride + 1, pad);
        }
        return;
    case 2:
        // A frame's zeros only cover samples of frames already moved.
        if (stride == 8) {
            for (SIZE_T f = frames; f-- > 0;)
                pairFrame<8>(buffer + 8 * f, load<ULONGLONG>(buffer + 2 * f), 8);
        } else {
            for (SIZE_T f = frames; f-- > 0;)
                pairFrame<0>(buffer + f * stride, load<ULONGLONG>(buffer + 2 * f), stride);
        }
        return;
    default:
        for (SIZE_T f = frames; f-- > 0;) {
            LONG* to = buffer + f * stride;
            const LONG* from = buffer + f * keep;
            for (SIZE_T j = keep; j-- > 0;)
                to[j] = from[j];
            zeroFill(to + keep, pad);
        }
        return;
    }
}

void int32ToPcm16(void* destination, const LONG* source, ULONG count) {
    if (!destination || !source || count == 0)
        return;
    UCHAR* __restrict out = static_cast<UCHAR*>(destination);
    const LONG* __restrict in = source;
    ULONG i = 0;
    for (; i + 8 <= count; i += 8) {
        v4si a = load<v4si>(in + i);
        v4si b = load<v4si>(in + i + 4);
#if defined(__SSE2__)
        // After the arithmetic shift every value fits 16 bits: the
        // saturating pack only narrows.
        v8hi high = __builtin_ia32_packssdw128(a >> 16, b >> 16);
#else
        // The odd 16-bit halves are bits 16..31 of each sample.
        v8hi high = __builtin_shufflevector((v8hi)a, (v8hi)b, 1, 3, 5, 7, 9, 11, 13, 15);
#endif
        store(out + 2 * (SIZE_T)i, high);
    }
    for (; i < count; ++i)
        store(out + 2 * (SIZE_T)i, (SHORT)(in[i] >> 16));
}

void int32ToPcm24(void* destination, const LONG* source, ULONG count) {
    if (!destination || !source || count == 0)
        return;
    UCHAR* __restrict out = static_cast<UCHAR*>(destination);
    const LONG* __restrict in = source;
    ULONG i = 0;
#ifdef MME_SSSE3_PATH
    if (useSsse3())
        i = pack24Ssse3(out, in, count);
#endif
    // Eight samples make three 64-bit words. Each pair of samples x (two
    // samples in one word) packs to 48 bits: bits 8..31 and 40..63.
    for (; i + 8 <= count; i += 8) {
        ULONGLONG p[4];
        for (int k = 0; k < 4; ++k) {
            ULONGLONG x = load<ULONGLONG>(in + i + 2 * k);
            p[k] = ((x >> 8) & 0xFFFFFFull) | ((x >> 16) & 0xFFFFFF000000ull);
        }
        UCHAR* at = out + 3 * (SIZE_T)i;
        store(at, p[0] | (p[1] << 48));
        store(at + 8, (p[1] >> 16) | (p[2] << 32));
        store(at + 16, (p[2] >> 32) | (p[3] << 16));
    }
    for (; i < count; ++i) {
        ULONG x = (ULONG)in[i];
        UCHAR* at = out + 3 * (SIZE_T)i;
        at[0] = (UCHAR)(x >> 8);
        at[1] = (UCHAR)(x >> 16);
        at[2] = (UCHAR)(x >> 24);
    }
}

void pcm16ToInt32(LONG* destination, const void* source, ULONG byteCount) {
    if (!destination || !source)
        return;
    const ULONG count = byteCount / 2;
    const UCHAR* __restrict in = static_cast<const UCHAR*>(source);
    LONG* __restrict out = destination;
    const v8hi zero = {0, 0, 0, 0, 0, 0, 0, 0};
    ULONG i = 0;
    for (; i + 8 <= count; i += 8) {
        // Interleaving zeros below each sample is the 16-bit left shift.
        v8hi x = load<v8hi>(in + 2 * (SIZE_T)i);
        store(out + i, __builtin_shufflevector(zero, x, 0, 8, 1, 9, 2, 10, 3, 11));
        store(out + i + 4, __builtin_shufflevector(zero, x, 4, 12, 5, 13, 6, 14, 7, 15));
    }
    for (; i < count; ++i)
        out[i] = from16(in + 2 * (SIZE_T)i);
}

void pcm24ToInt32(LONG* destination, const void* source, ULONG byteCount) {
    if (!destination || !source)
        return;
    const ULONG count = byteCount / 3;
    const UCHAR* __restrict in = static_cast<const UCHAR*>(source);
    LONG* __restrict out = destination;
    ULONG i = 0;
#ifdef MME_SSSE3_PATH
    if (useSsse3())
        i = unpack24Ssse3(out, in, count);
#endif
    // Four samples are 12 bytes, read as the words at bytes 0..7 and 4..11:
    // nothing past the group's last byte is touched.
    for (; i + 4 <= count; i += 4) {
        const UCHAR* at = in + 3 * (SIZE_T)i;
        ULONGLONG w0 = load<ULONGLONG>(at);
        ULONGLONG w1 = load<ULONGLONG>(at + 4);
        ULONG s0 = (ULONG)(w0 << 8);
        ULONG s1 = (ULONG)(w0 >> 16) & 0xFFFFFF00u;
        ULONG s2 = (ULONG)(w1 >> 8) & 0xFFFFFF00u;
        ULONG s3 = (ULONG)(w1 >> 32) & 0xFFFFFF00u;
        store(out + i, ((ULONGLONG)s1 << 32) | s0);
        store(out + i + 2, ((ULONGLONG)s3 << 32) | s2);
    }
    for (; i < count; ++i)
        out[i] = from24(in + 3 * (SIZE_T)i);
}

void convertInput(ULONG frames, LONG* source, ULONG ringChannels, void* destination,
                  ULONG wdmChannels, ULONG wdmBits) {
    if (!source || !destination || ringChannels == 0 || wdmChannels == 0 || frames == 0 ||
        ringChannels < wdmChannels || !countsFit(frames, ringChannels))
        return;
    if (ringChannels > wdmChannels)
        dropExtraChannels(source, frames, wdmChannels, ringChannels - wdmChannels);
    const ULONG samples = frames * wdmChannels;
    switch (wdmBits) {
    case 16:
        int32ToPcm16(destination, source, samples);
        break;
    case 24:
        int32ToPcm24(destination, source, samples);
        break;
    case 32:
        if (destination != source)
            memmove(destination, source, (SIZE_T)samples * 4);
        break;
    default:
        break;
    }
}

void convertOutput(ULONG frames, const void* source, ULONG wdmChannels, ULONG wdmBits,
                   LONG* destination, ULONG ringChannels) {
    if (!source || !destination || wdmChannels == 0 || ringChannels == 0 || frames == 0 ||
        ringChannels < wdmChannels || !countsFit(frames, ringChannels))
        return;
    const ULONG samples = frames * wdmChannels;
    const bool known = wdmBits == 16 || wdmBits == 24 || wdmBits == 32;
    if (known && ringChannels > wdmChannels &&
        !overlap(source, (SIZE_T)samples * (wdmBits / 8), destination,
                 (SIZE_T)frames * ringChannels * 4)) {
        // Separate buffers: convert and widen in one pass.
        widenInto(frames, static_cast<const UCHAR*>(source), wdmChannels, wdmBits / 8, destination,
                  ringChannels);
        return;
    }
    switch (wdmBits) {
    case 16:
        pcm16ToInt32(destination, source, samples * 2);
        break;
    case 24:
        pcm24ToInt32(destination, source, samples * 3);
        break;
    case 32:
        if (source != destination)
            memmove(destination, source, (SIZE_T)samples * 4);
        break;
    default:
        break;
    }
    if (ringChannels > wdmChannels)
        padExtraChannels(destination, frames, wdmChannels, ringChannels - wdmChannels);
}

void setConversionBaselineOnly(bool on) {
#ifdef MME_SSSE3_PATH
    __atomic_store_n(&gBaselineOnly, on ? 1 : 0, __ATOMIC_RELAXED);
#else
    (void)on;
#endif
}
