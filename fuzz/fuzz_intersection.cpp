// Fuzzes the wave filter's data range intersection: any pin, the pin's own
// range or a fuzzed one, any buffer length, open streams, hardware rate and
// lock, any client range (handed over as the port does). Only the statuses
// the protocol names; a size answer of 104 bytes whenever a length is
// written; a written format is a well-formed WAVEFORMATEXTENSIBLE inside
// both ranges, at the hardware rate while a stream is open and the locked
// rate while locked, and one the driver accepts when it came from a pin's
// own range with a width and channel count the pin can take.
#include "FuzzSupport.h"

#include <algorithm>
#include <memory>

namespace {

using fuzzsupport::Input;

void checkResult(const KSDATAFORMAT_WAVEFORMATEXTENSIBLE& r, const KSDATARANGE_AUDIO& client,
                 const KSDATARANGE_AUDIO& mine, bool streamOpen, ULONG hwRate, ULONG lock) {
    const WAVEFORMATEX& f = r.WaveFormatExt.Format;
    FUZZ_CHECK(r.DataFormat.FormatSize == sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE),
               "result FormatSize");
    FUZZ_CHECK(IsEqualGUIDAligned(r.DataFormat.MajorFormat, KSDATAFORMAT_TYPE_AUDIO) &&
                   IsEqualGUIDAligned(r.DataFormat.SubFormat, KSDATAFORMAT_SUBTYPE_PCM) &&
                   IsEqualGUIDAligned(r.DataFormat.Specifier, KSDATAFORMAT_SPECIFIER_WAVEFORMATEX),
               "result GUIDs");
    FUZZ_CHECK(f.wFormatTag == WAVE_FORMAT_EXTENSIBLE && f.cbSize == 22, "result tag/cbSize");
    // The format's 16-bit fields carry the intersection's low 16 bits; only
    // ranges the port never hands over (a pin's own ranges stay below 33
    // channels and 25 bits) have maxima that do not fit.
    const ULONG channels = std::min(client.MaximumChannels, mine.MaximumChannels);
    const ULONG bits = std::min(client.MaximumBitsPerSample, mine.MaximumBitsPerSample);
    FUZZ_CHECK(f.nChannels == (USHORT)channels && f.wBitsPerSample == (USHORT)bits,
               "result channels/bits are not the intersection's");
    if (channels <= 0xFFFF && bits <= 0xFFFF) {
        FUZZ_CHECK(f.nChannels >= 2, "result channels");
        FUZZ_CHECK(f.wBitsPerSample >= client.MinimumBitsPerSample &&
                       f.wBitsPerSample >= mine.MinimumBitsPerSample,
                   "result bits outside a range");
    }
    FUZZ_CHECK(f.nSamplesPerSec >= client.MinimumSampleFrequency &&
                   f.nSamplesPerSec <= client.MaximumSampleFrequency &&
                   f.nSamplesPerSec >= mine.MinimumSampleFrequency &&
                   f.nSamplesPerSec <= mine.MaximumSampleFrequency,
               "result rate outside a range");
    // The rate rules judge the intersection's lowest rate and the result
    // carries its highest; a pin's own ranges name one rate, so there the
    // two agree, but a fuzzed range of several rates may differ.
    const ULONG lowest = std::max(client.MinimumSampleFrequency, mine.MinimumSampleFrequency);
    FUZZ_CHECK(!streamOpen || lowest == hwRate, "intersection rate is not the hardware's");
    FUZZ_CHECK(lock == 0 || lowest == lock, "intersection rate is not the locked one");
    if (mine.MinimumSampleFrequency == mine.MaximumSampleFrequency)
        FUZZ_CHECK(f.nSamplesPerSec == lowest, "single-rate range answered at another rate");
    FUZZ_CHECK(f.nBlockAlign == (USHORT)((ULONG)f.nChannels * f.wBitsPerSample / 8),
               "result block alignment");
    FUZZ_CHECK(f.nAvgBytesPerSec == (ULONG)f.nBlockAlign * f.nSamplesPerSec, "result byte rate");
    FUZZ_CHECK(r.WaveFormatExt.Samples.wValidBitsPerSample == f.wBitsPerSample,
               "result valid bits");
    const ULONG mask = f.nChannels >= 32 ? 0xFFFFFFFFu : (1u << f.nChannels) - 1u;
    FUZZ_CHECK(r.WaveFormatExt.dwChannelMask == mask, "result channel mask");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::Stack* rig = &fuzzsupport::Stack::shared();
    if (size > 8192)
        return 0;

    Input in(data, size);
    const ULONG pinId = in.u8() % 6;
    const uint8_t rangeChoice = in.u8();
    const ULONG outputLength = in.oneOf({104, 0, 100, 103, 105, 4096});
    const uint8_t flags = in.u8();
    const bool noResult = flags & 1;
    const bool noLength = flags & 2;
    const bool openCapture = flags & 4;
    const bool openRender = flags & 8;
    const bool exactClientSize = flags & 16;
    const ULONG hwRate = in.oneOf({48000, 44100, 96000, 192000, 0});
    const ULONG lock = in.oneOf({0, 48000, 44100});
    std::vector<uint8_t> myBytes;
    if (rangeChoice >= 200)
        myBytes = fuzzsupport::asPortHandsIt(in.bytes(in.u8()), flags & 32);
    const std::vector<uint8_t> client = fuzzsupport::asPortHandsIt(in.rest(), exactClientSize);

    fuzzsupport::PoolMark mark([&] { return rig->channelBuffers(); });
    MMEWave* wave = rig->wave;
    fuzzsupport::Stack::Opened streams[2];
    if (openCapture)
        streams[0] = rig->openStereo(true);
    if (openRender)
        streams[1] = rig->openStereo(false);
    rig->usb.settings().current.fr = hwRate;
    rig->usb.setDigitalLock(lock);

    PKSDATARANGE mine = nullptr;
    const KSPIN_DESCRIPTOR* pin = pinId < WAVE_PIN_COUNT ? wave->getPinDescriptor(pinId) : nullptr;
    bool ownRange = false;
    if (rangeChoice < 200) {
        if (pin && pin->DataRangesCount) {
            mine = pin->DataRanges[rangeChoice % pin->DataRangesCount];
            ownRange = true;
        }
    } else {
        mine = reinterpret_cast<PKSDATARANGE>(myBytes.data());
    }

    // The buffer holds OutputBufferLength bytes (capped: the driver writes
    // at most 104 of them).
    const ULONG room = outputLength < 4096 ? outputLength : 4096;
    std::unique_ptr<uint8_t[]> result(new uint8_t[room ? room : 1]);
    ULONG resultLength = 0xDEADBEEF;
    const NTSTATUS status = wave->DataRangeIntersection(
        pinId, reinterpret_cast<PKSDATARANGE>(const_cast<uint8_t*>(client.data())), mine,
        outputLength, noResult ? nullptr : result.get(), noLength ? nullptr : &resultLength);

    FUZZ_CHECK(status == STATUS_SUCCESS || status == STATUS_BUFFER_OVERFLOW ||
                   status == STATUS_BUFFER_TOO_SMALL || status == STATUS_NO_MATCH ||
                   status == STATUS_INVALID_PARAMETER,
               "intersection status");
    FUZZ_CHECK(!noLength || status == STATUS_INVALID_PARAMETER, "no length pointer accepted");
    FUZZ_CHECK(resultLength == 0xDEADBEEF || resultLength == 104, "length answer");
    if (status == STATUS_BUFFER_OVERFLOW)
        FUZZ_CHECK(outputLength == 0 && resultLength == 104, "size query answered wrongly");
    if (status == STATUS_BUFFER_TOO_SMALL)
        FUZZ_CHECK(outputLength < 104 && resultLength == 104, "short buffer answered wrongly");
    if (status == STATUS_SUCCESS) {
        FUZZ_CHECK(outputLength >= 104 && resultLength == 104, "success without room");
        FUZZ_CHECK(!ownRange || pinId == WAVE_PIN_CAPTURE || pinId == WAVE_PIN_RENDER,
                   "success on a bridge pin's own range");
        const auto* r = reinterpret_cast<const KSDATAFORMAT_WAVEFORMATEXTENSIBLE*>(result.get());
        const auto* c = reinterpret_cast<const KSDATARANGE_AUDIO*>(client.data());
        const auto* m = reinterpret_cast<const KSDATARANGE_AUDIO*>(mine);
        checkResult(*r, *c, *m, openCapture || openRender, hwRate, lock);
        const WAVEFORMATEX& f = r->WaveFormatExt.Format;
        const bool capturePin = pin->DataFlow == KSPIN_DATAFLOW_OUT;
        if (ownRange && (f.wBitsPerSample == 16 || f.wBitsPerSample == 24) &&
            (f.nChannels == m->MaximumChannels || f.nChannels % 2 == 0)) {
            KSDATARANGE_AUDIO matched;
            const NTSTATUS valid =
                wave->doValidateFormat(&r->DataFormat, 104, capturePin, &matched);
            FUZZ_CHECK(valid == STATUS_SUCCESS, "the driver refuses the format it offered");
        }
    }

    for (auto& s : streams)
        fuzzsupport::Stack::close(s);
    rig->restore(mark);
    return 0;
}
