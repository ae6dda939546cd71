// Conversion kernels (contract in SampleConversion.h).
//
// The hot loops use the SSE2 intrinsics (16-byte registers, which kernel
// code on x64 may use without saving state) and, for the 24-bit packing,
// SSSE3 byte shuffles chosen at run time, with 64-bit word code for
// processors without them and a scalar tail. Every load and store goes
// through an unaligned intrinsic: no alignment is assumed and nothing is
// type-punned, and the kernel build (-fno-builtin) gets single moves instead
// of memcpy calls. Zeroing is written as explicit stores so the compiler does
// not turn it into a memset call per frame.
#include "SampleConversion.h"

#include <emmintrin.h>
#include <tmmintrin.h>

namespace {

inline __m128i load128(const void* p) {
    return _mm_loadu_si128(static_cast<const __m128i*>(p));
}
inline void store128(void* p, __m128i v) {
    _mm_storeu_si128(static_cast<__m128i*>(p), v);
}
inline __m128i load64x(const void* p) {
    return _mm_loadl_epi64(static_cast<const __m128i*>(p));
}
inline void store64x(void* p, __m128i v) {
    _mm_storel_epi64(static_cast<__m128i*>(p), v);
}
inline ULONGLONG load64(const void* p) {
    return (ULONGLONG)_mm_cvtsi128_si64(load64x(p));
}
inline ULONG load32(const void* p) {
    return (ULONG)_mm_cvtsi128_si32(_mm_loadu_si32(p));
}
inline void store16(void* p, ULONG v) {
    UCHAR* b = static_cast<UCHAR*>(p);
    b[0] = (UCHAR)v;
    b[1] = (UCHAR)(v >> 8);
}
inline void store24(void* p, ULONG v) {
    UCHAR* b = static_cast<UCHAR*>(p);
    b[0] = (UCHAR)v;
    b[1] = (UCHAR)(v >> 8);
    b[2] = (UCHAR)(v >> 16);
}

// n zero samples at p.
inline void zeroFill(LONG* p, SIZE_T n) {
    const __m128i zero = _mm_setzero_si128();
    for (; n >= 8; n -= 8, p += 8) {
        store128(p, zero);
        store128(p + 4, zero);
    }
    if (n & 4) {
        store128(p, zero);
        p += 4;
    }
    if (n & 2) {
        store64x(p, zero);
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

// One WDM sample at p in the working format.
inline LONG from16(const UCHAR* p) {
    return (LONG)(((ULONG)p[1] << 24) | ((ULONG)p[0] << 16));
}
inline LONG from24(const UCHAR* p) {
    return (LONG)(((ULONG)p[2] << 24) | ((ULONG)p[1] << 16) | ((ULONG)p[0] << 8));
}
inline LONG fromWdm(const UCHAR* p, ULONG bytes) {
    return bytes == 2 ? from16(p) : bytes == 3 ? from24(p) : (LONG)load32(p);
}
// The render ring's format of a working-format sample.
inline LONG toRenderRing(LONG working) {
    return working >> 8;
}

// -1: not asked yet; 0: baseline only; 1: SSSE3.
volatile LONG gSsse3 = -1;
volatile LONG gBaselineOnly = 0;

bool useSsse3() {
    if (MMELoadOnce(&gBaselineOnly))
        return false;
    LONG known = MMELoadOnce(&gSsse3);
    if (known < 0) {
        known = MMECpuHasSsse3() ? 1 : 0;
        MMEStoreOnce(&gSsse3, known);
    }
    return known == 1;
}

// ---- 24-bit packing with SSSE3 byte shuffles ----

// Bytes 1..3 of each of four samples, in 12 bytes.
MME_SSSE3_FUNCTION inline __m128i pick24(__m128i v) {
    return _mm_shuffle_epi8(
        v, _mm_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -128, -128, -128, -128));
}
// Four packed 3-byte samples from bytes `at`.. of v, as working-format samples.
MME_SSSE3_FUNCTION inline __m128i place24(__m128i v) {
    return _mm_shuffle_epi8(
        v, _mm_setr_epi8(-128, 0, 1, 2, -128, 3, 4, 5, -128, 6, 7, 8, -128, 9, 10, 11));
}
MME_SSSE3_FUNCTION inline __m128i place24From4(__m128i v) {
    return _mm_shuffle_epi8(
        v, _mm_setr_epi8(-128, 4, 5, 6, -128, 7, 8, 9, -128, 10, 11, 12, -128, 13, 14, 15));
}
// Eight samples (two registers) as 24 bytes at out, nothing written past them.
MME_SSSE3_FUNCTION inline void pack24x8(UCHAR* out, __m128i a, __m128i b) {
    __m128i pa = pick24(a), pb = pick24(b);
    store128(out, _mm_or_si128(pa, _mm_slli_si128(pb, 12)));
    store64x(out + 16, _mm_srli_si128(pb, 4));
}
// Eight samples from 24 bytes at in, nothing read past them.
MME_SSSE3_FUNCTION inline void unpack24x8(const UCHAR* in, __m128i* a, __m128i* b) {
    *a = place24(load128(in));
    *b = place24From4(load128(in + 8));
}

// Sixteen samples as 48 bytes at out: each shuffle puts its bytes where
// one of the three stores wants them.
MME_SSSE3_FUNCTION inline void pack24x16(UCHAR* out, const LONG* in) {
    const signed char z = -128;
    __m128i a = load128(in), b = load128(in + 4), c = load128(in + 8), d = load128(in + 12);
    // a's 12 bytes high, b's split 4 low / 8 high, c's 8 low / 4 high, d's
    // 12 low: each store then joins two neighbours with one byte alignment.
    __m128i ma = _mm_setr_epi8(z, z, z, z, 1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15);
    __m128i mb = _mm_setr_epi8(1, 2, 3, 5, z, z, z, z, 6, 7, 9, 10, 11, 13, 14, 15);
    __m128i mc = _mm_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, z, z, z, z, 11, 13, 14, 15);
    a = _mm_shuffle_epi8(a, ma);
    b = _mm_shuffle_epi8(b, mb);
    c = _mm_shuffle_epi8(c, mc);
    d = pick24(d);
    store128(out, _mm_alignr_epi8(b, a, 4));
    store128(out + 16, _mm_alignr_epi8(c, b, 8));
    store128(out + 32, _mm_alignr_epi8(d, c, 12));
}

MME_SSSE3_FUNCTION ULONG pack24Ssse3(UCHAR* out, const LONG* in, ULONG count) {
    const LONG* from = in;
    UCHAR* to = out;
    for (const LONG* end = in + (count & ~31u); from != end; from += 32, to += 96) {
        pack24x16(to, from);
        pack24x16(to + 48, from + 16);
    }
    ULONG i = count & ~31u;
    for (; i + 16 <= count; i += 16)
        pack24x16(out + 3 * (SIZE_T)i, in + i);
    for (; i + 8 <= count; i += 8)
        pack24x8(out + 3 * (SIZE_T)i, load128(in + i), load128(in + i + 4));
    return i;
}

// Sixteen packed samples from 48 bytes at in, sign-extended as the render
// ring wants them: each lane gets [b0 0 b1 b2], which a multiply-add by
// (1, 256) turns into b0 + 256 * (b2:b1), the 24-bit value sign-extended,
// without a shift.
MME_SSSE3_FUNCTION inline void widen24x16(LONG* out, const UCHAR* in) {
    const signed char z = -128;
    const __m128i lo = _mm_setr_epi8(0, z, 1, 2, 3, z, 4, 5, 6, z, 7, 8, 9, z, 10, 11);
    const __m128i hi = _mm_setr_epi8(4, z, 5, 6, 7, z, 8, 9, 10, z, 11, 12, 13, z, 14, 15);
    const __m128i weights = _mm_set1_epi32(0x1000001);
    store128(out, _mm_madd_epi16(_mm_shuffle_epi8(load128(in), lo), weights));
    store128(out + 4, _mm_madd_epi16(_mm_shuffle_epi8(load128(in + 8), hi), weights));
    store128(out + 8, _mm_madd_epi16(_mm_shuffle_epi8(load128(in + 24), lo), weights));
    store128(out + 12, _mm_madd_epi16(_mm_shuffle_epi8(load128(in + 32), hi), weights));
}

// shift: 0 for the working format, 8 for the render ring's.
template <int Shift>
MME_SSSE3_FUNCTION ULONG unpack24Ssse3(LONG* out, const UCHAR* in, ULONG count) {
    ULONG i = 0;
    if (Shift == 8) {
        const UCHAR* from = in;
        LONG* to = out;
        for (const UCHAR* end = in + 3 * (SIZE_T)(count & ~31u); from != end;
             from += 96, to += 32) {
            widen24x16(to, from);
            widen24x16(to + 16, from + 48);
        }
        i = count & ~31u;
    }
    for (; i + 16 <= count; i += 16) {
        __m128i a, b, c, d;
        unpack24x8(in + 3 * (SIZE_T)i, &a, &b);
        unpack24x8(in + 3 * (SIZE_T)i + 24, &c, &d);
        if (Shift) {
            a = _mm_srai_epi32(a, Shift);
            b = _mm_srai_epi32(b, Shift);
            c = _mm_srai_epi32(c, Shift);
            d = _mm_srai_epi32(d, Shift);
        }
        store128(out + i, a);
        store128(out + i + 4, b);
        store128(out + i + 8, c);
        store128(out + i + 12, d);
    }
    for (; i + 8 <= count; i += 8) {
        __m128i a, b;
        unpack24x8(in + 3 * (SIZE_T)i, &a, &b);
        if (Shift) {
            a = _mm_srai_epi32(a, Shift);
            b = _mm_srai_epi32(b, Shift);
        }
        store128(out + i, a);
        store128(out + i + 4, b);
    }
    return i;
}

// ---- 24-bit packing on the x64 baseline (SSE2 only) ----

// Bytes 1..3 of each of four samples, packed into the low 12 bytes.
// Each 64-bit half: its second sample moved down next to its first, the
// pair's 6 bytes low and 2 zero bytes above them. With y0 and y1 the two
// samples shifted down to 24 bits, the half holds y0 + y1 * 2^32; taking
// y1 * (2^32 - 2^24) off it, one multiply, leaves y0 + y1 * 2^24.
inline __m128i pairs24Sse2(__m128i v) {
    const __m128i weight = _mm_set_epi32(0, (int)0xFF000000u, 0, (int)0xFF000000u);
    __m128i y = _mm_srli_epi32(v, 8);
    return _mm_sub_epi64(y, _mm_mul_epu32(_mm_srli_epi64(v, 40), weight));
}
inline __m128i pick24Sse2(__m128i v) {
    const __m128i low6 = _mm_set_epi32(0, 0, 0xFFFF, -1);
    const __m128i next6 = _mm_set_epi32(0, -1, (int)0xFFFF0000u, 0);
    __m128i pairs = pairs24Sse2(v);
    return _mm_or_si128(_mm_and_si128(pairs, low6), _mm_and_si128(_mm_srli_si128(pairs, 2), next6));
}
// Four samples' 12 bytes at out as two pairs, 2 bytes past them overwritten.
inline void storePairs24Sse2(UCHAR* out, __m128i pairs) {
    store64x(out, pairs);
    _mm_storeh_pi(reinterpret_cast<__m64*>(out + 6), _mm_castsi128_ps(pairs));
}

// Sixteen samples as 48 bytes at out. Each group's 16-byte store ends in
// 4 bytes the next one overwrites, which costs less than joining groups
// with byte shifts; the last store, which must stop at the end, rewrites
// the third group's tail as it was.
inline void pack24x16Sse2(UCHAR* out, const LONG* in) {
    __m128i c = pairs24Sse2(load128(in + 8)), d = pick24Sse2(load128(in + 12));
    storePairs24Sse2(out, pairs24Sse2(load128(in)));
    storePairs24Sse2(out + 12, pairs24Sse2(load128(in + 4)));
    storePairs24Sse2(out + 24, c);
    // c's last 4 bytes are bytes 2..5 of its upper half, zeros above them.
    store128(out + 32, _mm_or_si128(_mm_srli_si128(c, 10), _mm_slli_si128(d, 4)));
}

// Four 3-byte samples as working-format samples, from two pairs of them,
// one in the low 6 bytes of each 64-bit half: a 32-bit shift places the
// first of each pair, a 64-bit shift the second.
inline __m128i placePairs24Sse2(__m128i pairs) {
    const __m128i first = _mm_set_epi32(0, -1, 0, -1);
    const __m128i second = _mm_set_epi32((int)0xFFFFFF00u, 0, (int)0xFFFFFF00u, 0);
    return _mm_or_si128(_mm_and_si128(_mm_slli_epi32(pairs, 8), first),
                        _mm_and_si128(_mm_slli_epi64(pairs, 16), second));
}
// The same from the low 12 bytes of v.
inline __m128i place24Sse2(__m128i v) {
    return placePairs24Sse2(_mm_unpacklo_epi64(v, _mm_srli_si128(v, 6)));
}
// The same from 14 bytes at p, its two pairs loaded apart: two loads
// cost less than the byte shift.
inline __m128i place24Sse2At(const UCHAR* p) {
    return placePairs24Sse2(_mm_unpacklo_epi64(load64x(p), load64x(p + 6)));
}

// Eight samples from the 24 bytes at from, whose byte before is readable.
// A load starting one byte before a sample puts it in the top 3 bytes of
// the load's first 32-bit lane and the sample four on in its last, so four
// loads 3 bytes apart hold all eight in place: lane shuffles gather them and
// no bytes move within a lane.
template <int Shift> inline void widen24x8Sse2(LONG* to, const UCHAR* from) {
    __m128 l0 = _mm_castsi128_ps(load128(from - 1)), l1 = _mm_castsi128_ps(load128(from + 2));
    __m128 l2 = _mm_castsi128_ps(load128(from + 5)), l3 = _mm_castsi128_ps(load128(from + 8));
    // Lanes 0 and 3 of each load hold samples k and k + 4: two shuffles
    // gather them as [0 4 1 5] and [2 6 3 7], two more sort them.
    __m128 a = _mm_shuffle_ps(l0, l1, _MM_SHUFFLE(3, 0, 3, 0));
    __m128 b = _mm_shuffle_ps(l2, l3, _MM_SHUFFLE(3, 0, 3, 0));
    __m128i first = _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
    __m128i second = _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
    if (Shift) {
        first = _mm_srai_epi32(first, Shift);
        second = _mm_srai_epi32(second, Shift);
    } else {
        const __m128i top3 = _mm_set1_epi32((int)0xFFFFFF00u);
        first = _mm_and_si128(first, top3);
        second = _mm_and_si128(second, top3);
    }
    store128(to, first);
    store128(to + 4, second);
}

template <int Shift> inline __m128i shiftedBy(__m128i v) {
    return Shift ? _mm_srai_epi32(v, Shift) : v;
}

// Unpacks groups of four samples while the 16-byte load stays inside the
// source (two more samples follow), then the rest from a load that ends
// with the source; returns the samples done, all of them from six on.
template <int Shift> ULONG unpack24Sse2(LONG* out, const UCHAR* in, ULONG count) {
    ULONG i = 0;
    if (count >= 20) {
        // The first four the other way, so no load starts before the source.
        store128(out, shiftedBy<Shift>(place24Sse2At(in)));
        const UCHAR* from = in + 12;
        LONG* to = out + 4;
        const ULONG bulk = (count - 4) & ~15u;
        for (const UCHAR* end = from + 3 * (SIZE_T)bulk; from != end; from += 48, to += 16) {
            widen24x8Sse2<Shift>(to, from);
            widen24x8Sse2<Shift>(to + 8, from + 24);
        }
        i = 4 + bulk;
    }
    for (; i + 6 <= count; i += 4)
        store128(out + i, shiftedBy<Shift>(place24Sse2(load128(in + 3 * (SIZE_T)i))));
    // At most five left: from the source's last 16 bytes, which hold the
    // last five samples from byte 1 on, rewriting some done ones as they are.
    if (i < count && count >= 6) {
        const __m128i last = load128(in + 3 * (SIZE_T)count - 16);
        if (count - i == 5)
            store128(out + count - 5, shiftedBy<Shift>(place24Sse2(_mm_srli_si128(last, 1))));
        store128(out + count - 4, shiftedBy<Shift>(place24Sse2(_mm_srli_si128(last, 4))));
        i = count;
    }
    return i;
}

// ---- Single-pass kernels of the period path ----

// Two working-format samples of one ring frame, as [x0 x1 0 0].
inline __m128i ringPair(const LONG* frame) {
    return load64x(frame);
}

// Capture: the first two channels of frames ring frames of `stride` samples.
template <ULONG Bytes> void keepPairs(ULONG frames, const LONG* in, SIZE_T stride, UCHAR* out) {
    ULONG f = 0;
    if (Bytes == 2) {
        for (; f + 4 <= frames; f += 4, in += 4 * stride, out += 16) {
            __m128i a = _mm_unpacklo_epi64(ringPair(in), ringPair(in + stride));
            __m128i b = _mm_unpacklo_epi64(ringPair(in + 2 * stride), ringPair(in + 3 * stride));
            store128(out, _mm_packs_epi32(_mm_srai_epi32(a, 16), _mm_srai_epi32(b, 16)));
        }
    } else if (Bytes == 4) {
        for (; f + 2 <= frames; f += 2, in += 2 * stride, out += 16)
            store128(out, _mm_unpacklo_epi64(ringPair(in), ringPair(in + stride)));
    } else {
        for (; f + 4 <= frames; f += 4, in += 4 * stride, out += 24) {
            __m128i a = pick24Sse2(_mm_unpacklo_epi64(ringPair(in), ringPair(in + stride)));
            __m128i b = pick24Sse2(
                _mm_unpacklo_epi64(ringPair(in + 2 * stride), ringPair(in + 3 * stride)));
            store128(out, _mm_or_si128(a, _mm_slli_si128(b, 12)));
            store64x(out + 16, _mm_srli_si128(b, 4));
        }
    }
    for (; f < frames; ++f, in += stride, out += 2 * Bytes) {
        if (Bytes == 2) {
            store16(out, (ULONG)in[0] >> 16);
            store16(out + 2, (ULONG)in[1] >> 16);
        } else if (Bytes == 3) {
            store24(out, (ULONG)in[0] >> 8);
            store24(out + 3, (ULONG)in[1] >> 8);
        } else {
            store64x(out, ringPair(in));
        }
    }
}

MME_SSSE3_FUNCTION ULONG keepPairs24Ssse3(ULONG frames, const LONG* in, SIZE_T stride, UCHAR* out) {
    ULONG f = 0;
    for (; f + 4 <= frames; f += 4, in += 4 * stride, out += 24) {
        __m128i a = _mm_unpacklo_epi64(ringPair(in), ringPair(in + stride));
        __m128i b = _mm_unpacklo_epi64(ringPair(in + 2 * stride), ringPair(in + 3 * stride));
        pack24x8(out, a, b);
    }
    return f;
}

// Render: stereo frames into ring frames of Fixed samples (0: `stride`,
// known at run time only) whose channels from 2 on are zero. `head` is
// [s0 s1 0 0] in the render ring's format.
template <ULONG Fixed> inline void pairFrame(LONG* out, __m128i head, SIZE_T stride) {
    const SIZE_T n = Fixed ? Fixed : stride;
    if (n >= 4) {
        store128(out, head);
        zeroFill(out + 4, n - 4);
    } else {
        store64x(out, head);
        if (n == 3)
            out[2] = 0;
    }
}

template <ULONG Fixed>
MME_SSSE3_FUNCTION ULONG widenPairs24Ssse3(ULONG frames, const UCHAR* in, LONG* out,
                                           SIZE_T stride) {
    const SIZE_T step = Fixed ? Fixed : stride;
    ULONG f = 0;
    for (; f + 4 <= frames; f += 4, in += 24, out += 4 * step) {
        __m128i a, b;
        unpack24x8(in, &a, &b);
        a = _mm_srai_epi32(a, 8);
        b = _mm_srai_epi32(b, 8);
        pairFrame<Fixed>(out, _mm_move_epi64(a), stride);
        pairFrame<Fixed>(out + step, _mm_srli_si128(a, 8), stride);
        pairFrame<Fixed>(out + 2 * step, _mm_move_epi64(b), stride);
        pairFrame<Fixed>(out + 3 * step, _mm_srli_si128(b, 8), stride);
    }
    return f;
}

template <ULONG Bytes, ULONG Fixed>
void widenPairsAs(ULONG frames, const UCHAR* in, LONG* out, SIZE_T stride, bool ssse3) {
    ULONG f = 0;
    const SIZE_T step = Fixed ? Fixed : stride;
    if (Bytes == 2) {
        const __m128i zero = _mm_setzero_si128();
        for (; f + 4 <= frames; f += 4, in += 16, out += 4 * step) {
            __m128i x = load128(in);
            __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(zero, x), 8);
            __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(zero, x), 8);
            pairFrame<Fixed>(out, _mm_move_epi64(lo), stride);
            pairFrame<Fixed>(out + step, _mm_srli_si128(lo, 8), stride);
            pairFrame<Fixed>(out + 2 * step, _mm_move_epi64(hi), stride);
            pairFrame<Fixed>(out + 3 * step, _mm_srli_si128(hi, 8), stride);
        }
    } else if (Bytes == 4) {
        for (; f + 2 <= frames; f += 2, in += 16, out += 2 * step) {
            __m128i x = _mm_srai_epi32(load128(in), 8);
            pairFrame<Fixed>(out, _mm_move_epi64(x), stride);
            pairFrame<Fixed>(out + step, _mm_srli_si128(x, 8), stride);
        }
    } else if (ssse3) {
        f = widenPairs24Ssse3<Fixed>(frames, in, out, stride);
        in += 6 * (SIZE_T)f;
        out += f * step;
    } else {
        // Another frame follows, so the 8-byte load (2 bytes past this
        // pair) stays inside the source.
        for (; f + 1 < frames; ++f, in += 6, out += step) {
            ULONGLONG w = load64(in);
            ULONGLONG pair = ((ULONGLONG)((ULONG)(w >> 16) & 0xFFFFFF00u) << 32) | (ULONG)(w << 8);
            pairFrame<Fixed>(out, _mm_srai_epi32(_mm_cvtsi64_si128((LONGLONG)pair), 8), stride);
        }
    }
    for (; f < frames; ++f, in += 2 * Bytes, out += step) {
        LONG s0 = toRenderRing(fromWdm(in, Bytes)), s1 = toRenderRing(fromWdm(in + Bytes, Bytes));
        pairFrame<Fixed>(out, _mm_setr_epi32(s0, s1, 0, 0), stride);
    }
}

template <ULONG Bytes>
void widenPairs(ULONG frames, const UCHAR* in, LONG* out, ULONG stride, bool ssse3) {
    if (stride == 8)
        widenPairsAs<Bytes, 8>(frames, in, out, 8, ssse3);
    else if (stride == 32)
        widenPairsAs<Bytes, 32>(frames, in, out, 32, ssse3);
    else
        widenPairsAs<Bytes, 0>(frames, in, out, stride, ssse3);
}

// Render, as many ring channels as the stream has: count samples in a row.
void renderRun(ULONG count, const UCHAR* in, ULONG bytes, LONG* out) {
    ULONG i = 0;
    if (bytes == 2) {
        // Each sample times 256 in its own 32-bit lane is the render ring's
        // sign-extended value; the multiplier leaves the shuffle units to
        // the unpacks.
        const __m128i zero = _mm_setzero_si128();
        const __m128i by256 = _mm_set1_epi32(0x1000000);
        const UCHAR* from = in;
        LONG* to = out;
        for (const UCHAR* end = in + 2 * (SIZE_T)(count & ~31u); from != end;
             from += 64, to += 32) {
            __m128i x = load128(from), y = load128(from + 16);
            __m128i z = load128(from + 32), w = load128(from + 48);
            store128(to, _mm_madd_epi16(_mm_unpacklo_epi16(zero, x), by256));
            store128(to + 4, _mm_madd_epi16(_mm_unpackhi_epi16(zero, x), by256));
            store128(to + 8, _mm_madd_epi16(_mm_unpacklo_epi16(zero, y), by256));
            store128(to + 12, _mm_madd_epi16(_mm_unpackhi_epi16(zero, y), by256));
            store128(to + 16, _mm_madd_epi16(_mm_unpacklo_epi16(zero, z), by256));
            store128(to + 20, _mm_madd_epi16(_mm_unpackhi_epi16(zero, z), by256));
            store128(to + 24, _mm_madd_epi16(_mm_unpacklo_epi16(zero, w), by256));
            store128(to + 28, _mm_madd_epi16(_mm_unpackhi_epi16(zero, w), by256));
        }
        i = count & ~31u;
    } else if (bytes == 4) {
        for (; i + 16 <= count; i += 16) {
            const UCHAR* at = in + 4 * (SIZE_T)i;
            store128(out + i, _mm_srai_epi32(load128(at), 8));
            store128(out + i + 4, _mm_srai_epi32(load128(at + 16), 8));
            store128(out + i + 8, _mm_srai_epi32(load128(at + 32), 8));
            store128(out + i + 12, _mm_srai_epi32(load128(at + 48), 8));
        }
    } else {
        if (useSsse3())
            i = unpack24Ssse3<8>(out, in, count);
        i += unpack24Sse2<8>(out + i, in + 3 * (SIZE_T)i, count - i);
    }
    for (; i < count; ++i)
        out[i] = toRenderRing(fromWdm(in + bytes * (SIZE_T)i, bytes));
}

// Capture, as many stream channels as the ring has: count samples in a row.
void captureRun(ULONG count, const LONG* in, ULONG bytes, UCHAR* out) {
    if (bytes == 2)
        int32ToPcm16(out, in, count);
    else if (bytes == 3)
        int32ToPcm24(out, in, count);
    else
        memcpy(out, in, (SIZE_T)count * 4);
}

} // namespace

void shiftRight8(LONG* samples, ULONG count) {
    if (!samples || count == 0)
        return;
    ULONG i = 0;
    for (; i + 8 <= count; i += 8) {
        store128(samples + i, _mm_srai_epi32(load128(samples + i), 8));
        store128(samples + i + 4, _mm_srai_epi32(load128(samples + i + 4), 8));
    }
    for (; i < count; ++i)
        samples[i] >>= 8;
}

void dropExtraChannels(LONG* buffer, ULONG frames, ULONG keep, ULONG drop) {
    if (!buffer || frames == 0 || drop == 0 || keep == 0)
        return;
    const SIZE_T stride = (SIZE_T)keep + drop;
    // Destinations never pass their sources (dst <= src), and each sample
    // is loaded before it is stored, so front-to-back is safe in place.
    for (SIZE_T f = 1; f < frames; ++f) {
        LONG* to = buffer + f * keep;
        const LONG* from = buffer + f * stride;
        for (SIZE_T j = 0; j < keep; ++j)
            to[j] = from[j];
    }
}

void padExtraChannels(LONG* buffer, ULONG frames, ULONG keep, ULONG pad) {
    if (!buffer || frames == 0 || pad == 0)
        return;
    const SIZE_T stride = (SIZE_T)keep + pad;
    // Back to front: a frame's new place never lies below its old one, and
    // its zeros lie above every sample still to be moved.
    for (SIZE_T f = frames; f-- > 0;) {
        LONG* to = buffer + f * stride;
        const LONG* from = buffer + f * keep;
        for (SIZE_T j = keep; j-- > 0;)
            to[j] = from[j];
        zeroFill(to + keep, pad);
    }
}

void int32ToPcm16(void* destination, const LONG* source, ULONG count) {
    if (!destination || !source || count == 0)
        return;
    UCHAR* out = static_cast<UCHAR*>(destination);
    ULONG i = 0;
    // Multiplying the high half by 1 and the low by 0 is the arithmetic
    // shift by 16, on the multiplier instead of the shift units the packs
    // need; every value then fits 16 bits and the saturating pack only
    // narrows.
    const __m128i high = _mm_set1_epi32(0x10000);
    const LONG* in = source;
    UCHAR* to = out;
    for (const LONG* end = source + (count & ~31u); in != end; in += 32, to += 64) {
        __m128i a = _mm_madd_epi16(load128(in), high);
        __m128i b = _mm_madd_epi16(load128(in + 4), high);
        __m128i c = _mm_madd_epi16(load128(in + 8), high);
        __m128i d = _mm_madd_epi16(load128(in + 12), high);
        __m128i e = _mm_madd_epi16(load128(in + 16), high);
        __m128i f = _mm_madd_epi16(load128(in + 20), high);
        __m128i g = _mm_madd_epi16(load128(in + 24), high);
        __m128i h = _mm_madd_epi16(load128(in + 28), high);
        store128(to, _mm_packs_epi32(a, b));
        store128(to + 16, _mm_packs_epi32(c, d));
        store128(to + 32, _mm_packs_epi32(e, f));
        store128(to + 48, _mm_packs_epi32(g, h));
    }
    i = count & ~31u;
    for (; i + 8 <= count; i += 8) {
        __m128i a = _mm_srai_epi32(load128(source + i), 16);
        __m128i b = _mm_srai_epi32(load128(source + i + 4), 16);
        store128(out + 2 * (SIZE_T)i, _mm_packs_epi32(a, b));
    }
    for (; i < count; ++i)
        store16(out + 2 * (SIZE_T)i, (ULONG)source[i] >> 16);
}

void int32ToPcm24(void* destination, const LONG* source, ULONG count) {
    if (!destination || !source || count == 0)
        return;
    UCHAR* out = static_cast<UCHAR*>(destination);
    ULONG i = 0;
    if (useSsse3())
        i = pack24Ssse3(out, source, count);
    const LONG* from = source + i;
    UCHAR* to = out + 3 * (SIZE_T)i;
    for (const LONG* end = from + ((count - i) & ~31u); from != end; from += 32, to += 96) {
        pack24x16Sse2(to, from);
        pack24x16Sse2(to + 48, from + 16);
    }
    i += (count - i) & ~31u;
    for (; i + 16 <= count; i += 16)
        pack24x16Sse2(out + 3 * (SIZE_T)i, source + i);
    for (; i < count; ++i)
        store24(out + 3 * (SIZE_T)i, (ULONG)source[i] >> 8);
}

void pcm16ToInt32(LONG* destination, const void* source, ULONG byteCount) {
    if (!destination || !source)
        return;
    const ULONG count = byteCount / 2;
    const UCHAR* in = static_cast<const UCHAR*>(source);
    const __m128i zero = _mm_setzero_si128();
    ULONG i = 0;
    for (; i + 8 <= count; i += 8) {
        // Interleaving zeros below each sample is the 16-bit left shift.
        __m128i x = load128(in + 2 * (SIZE_T)i);
        store128(destination + i, _mm_unpacklo_epi16(zero, x));
        store128(destination + i + 4, _mm_unpackhi_epi16(zero, x));
    }
    for (; i < count; ++i)
        destination[i] = from16(in + 2 * (SIZE_T)i);
}

void pcm24ToInt32(LONG* destination, const void* source, ULONG byteCount) {
    if (!destination || !source)
        return;
    const ULONG count = byteCount / 3;
    const UCHAR* in = static_cast<const UCHAR*>(source);
    ULONG i = 0;
    if (useSsse3())
        i = unpack24Ssse3<0>(destination, in, count);
    i += unpack24Sse2<0>(destination + i, in + 3 * (SIZE_T)i, count - i);
    for (; i < count; ++i)
        destination[i] = from24(in + 3 * (SIZE_T)i);
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

void ringToPcm(ULONG frames, const LONG* ring, ULONG ringChannels, void* pcm, ULONG wdmChannels,
               ULONG wdmBits) {
    if (!ring || !pcm || wdmChannels == 0 || frames == 0 || ringChannels < wdmChannels ||
        !countsFit(frames, ringChannels) || (wdmBits != 16 && wdmBits != 24 && wdmBits != 32))
        return;
    const ULONG bytes = wdmBits / 8;
    UCHAR* out = static_cast<UCHAR*>(pcm);
    if (ringChannels == wdmChannels) {
        captureRun(frames * wdmChannels, ring, bytes, out);
        return;
    }
    if (wdmChannels == 2) {
        if (bytes == 2) {
            keepPairs<2>(frames, ring, ringChannels, out);
        } else if (bytes == 4) {
            keepPairs<4>(frames, ring, ringChannels, out);
        } else {
            const ULONG done = useSsse3() ? keepPairs24Ssse3(frames, ring, ringChannels, out) : 0;
            keepPairs<3>(frames - done, ring + (SIZE_T)done * ringChannels, ringChannels,
                         out + 6 * (SIZE_T)done);
        }
        return;
    }
    const SIZE_T frameBytes = (SIZE_T)wdmChannels * bytes;
    for (ULONG f = 0; f < frames; ++f, ring += ringChannels, out += frameBytes)
        captureRun(wdmChannels, ring, bytes, out);
}

void pcmToRing(ULONG frames, const void* pcm, ULONG wdmChannels, ULONG wdmBits, LONG* ring,
               ULONG ringChannels, ULONG firstChannel) {
    if (!pcm || !ring || wdmChannels == 0 || frames == 0 ||
        (ULONGLONG)firstChannel + wdmChannels > ringChannels || !countsFit(frames, ringChannels) ||
        (wdmBits != 16 && wdmBits != 24 && wdmBits != 32))
        return;
    const ULONG bytes = wdmBits / 8;
    const UCHAR* in = static_cast<const UCHAR*>(pcm);
    if (firstChannel == 0 && ringChannels == wdmChannels) {
        renderRun(frames * wdmChannels, in, bytes, ring);
        return;
    }
    if (firstChannel == 0 && wdmChannels == 2) {
        const bool ssse3 = bytes == 3 && useSsse3();
        if (bytes == 2)
            widenPairs<2>(frames, in, ring, ringChannels, false);
        else if (bytes == 3)
            widenPairs<3>(frames, in, ring, ringChannels, ssse3);
        else
            widenPairs<4>(frames, in, ring, ringChannels, false);
        return;
    }
    const SIZE_T frameBytes = (SIZE_T)wdmChannels * bytes;
    const ULONG after = ringChannels - firstChannel - wdmChannels;
    for (ULONG f = 0; f < frames; ++f, in += frameBytes, ring += ringChannels) {
        zeroFill(ring, firstChannel);
        renderRun(wdmChannels, in, bytes, ring + firstChannel);
        zeroFill(ring + firstChannel + wdmChannels, after);
    }
}

void setConversionBaselineOnly(bool on) {
    MMEStoreOnce(&gBaselineOnly, (LONG)(on ? 1 : 0));
}
