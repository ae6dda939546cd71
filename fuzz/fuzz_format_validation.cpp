// Fuzzes format validation and stream creation with arbitrary KSDATAFORMAT
// bytes under an optional digital lock. An accepted format is audio with a
// WAVEFORMATEX specifier, 16 or 24 bits at one of the pin's rates (the
// locked one when locked), matched by a range holding its channels and
// block alignment; a stream is made exactly for formats that validate,
// shapes its DMA channel for the format and leaves nothing behind.
#include "FuzzSupport.h"

#include <memory>

namespace {

using fuzzsupport::Input;

ULONG bytesOf(ULONG bits) {
    return bits == 16 ? 2 : bits == 24 ? 3 : bits == 32 ? 4 : 0;
}

bool pinOffersRate(const KSPIN_DESCRIPTOR* pin, ULONG rate) {
    for (ULONG i = 0; i < pin->DataRangesCount; ++i) {
        const auto* r = reinterpret_cast<const KSDATARANGE_AUDIO*>(pin->DataRanges[i]);
        if (r->MinimumSampleFrequency == rate)
            return true;
    }
    return false;
}

void checkAccepted(MMEWave* wave, const std::vector<uint8_t>& bytes, bool capture, ULONG lock,
                   const KSDATARANGE_AUDIO& range) {
    FUZZ_CHECK(bytes.size() >= MME_MIN_FORMAT_SIZE, "a short buffer was accepted");
    const auto* format = reinterpret_cast<const KSDATAFORMAT*>(bytes.data());
    const auto* wfx = reinterpret_cast<const WAVEFORMATEX*>(bytes.data() + sizeof(KSDATAFORMAT));
    FUZZ_CHECK(format->FormatSize >= MME_MIN_FORMAT_SIZE, "FormatSize below a WAVEFORMATEX");
    FUZZ_CHECK(IsEqualGUIDAligned(format->MajorFormat, KSDATAFORMAT_TYPE_AUDIO), "not audio");
    FUZZ_CHECK(IsEqualGUIDAligned(format->Specifier, KSDATAFORMAT_SPECIFIER_WAVEFORMATEX),
               "not a WAVEFORMATEX specifier");
    const ULONG bytesPerSample = bytesOf(wfx->wBitsPerSample);
    FUZZ_CHECK(wfx->wBitsPerSample == 16 || wfx->wBitsPerSample == 24, "accepted bits");
    FUZZ_CHECK(lock == 0 || wfx->nSamplesPerSec == lock, "accepted a rate the lock forbids");
    FUZZ_CHECK(pinOffersRate(wave->getStreamPinDescriptor(capture), wfx->nSamplesPerSec),
               "accepted a rate the pin does not offer");
    FUZZ_CHECK(range.DataRange.FormatSize == sizeof(KSDATARANGE_AUDIO), "no matched range");
    FUZZ_CHECK(range.MinimumSampleFrequency == wfx->nSamplesPerSec &&
                   range.MaximumSampleFrequency == wfx->nSamplesPerSec,
               "matched range has another rate");
    FUZZ_CHECK(range.MaximumChannels >= wfx->nChannels && wfx->nChannels >= 1,
               "matched range does not hold the channels");
    const bool exact = wfx->nChannels == range.MaximumChannels &&
                       wfx->nBlockAlign == range.MaximumChannels * bytesPerSample;
    const bool lower =
        wfx->nChannels % 2 == 0 && (wfx->nBlockAlign == wfx->nChannels * bytesPerSample ||
                                    wfx->nBlockAlign == range.MaximumChannels * bytesPerSample);
    FUZZ_CHECK(exact || lower, "block alignment for the channels");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::Stack* rig = &fuzzsupport::Stack::shared();
    if (size > 16384)
        return 0;

    Input in(data, size);
    const uint8_t flags = in.u8();
    const bool capture = flags & 1;
    const ULONG lock = in.oneOf({0, 44100, 48000, 96000});
    const std::vector<uint8_t> bytes = in.rest();

    fuzzsupport::PoolMark mark([&] { return rig->channelBuffers(); });
    rig->usb.setDigitalLock(lock);

    // Validation on exactly the input's bytes.
    {
        std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size() + 1]);
        if (!bytes.empty())
            std::memcpy(exact.get(), bytes.data(), bytes.size());
        KSDATARANGE_AUDIO range;
        std::memset(&range, 0xEE, sizeof(range));
        const NTSTATUS status =
            rig->wave->doValidateFormat(reinterpret_cast<const KSDATAFORMAT*>(exact.get()),
                                        (ULONG)bytes.size(), capture, &range);
        FUZZ_CHECK(status == STATUS_SUCCESS || status == STATUS_NOT_SUPPORTED, "status");
        if (status == STATUS_SUCCESS)
            checkAccepted(rig->wave, bytes, capture, lock, range);
    }

    // NewStream as the port calls it, and what the port then does with it.
    std::vector<uint8_t> format = fuzzsupport::asPortHandsIt(bytes);
    KSDATARANGE_AUDIO matched;
    const NTSTATUS valid =
        rig->wave->doValidateFormat(reinterpret_cast<const KSDATAFORMAT*>(format.data()),
                                    (ULONG)format.size(), capture, &matched);
    fuzzsupport::Stack::Opened opened = rig->open(capture, format);
    if (opened.status != STATUS_SUCCESS) {
        FUZZ_CHECK(!opened.stream && !opened.dma && !opened.group,
                   "a refused NewStream handed something out");
        FUZZ_CHECK(valid != STATUS_SUCCESS || opened.status == STATUS_INSUFFICIENT_RESOURCES,
                   "a valid format was refused");
    } else {
        FUZZ_CHECK(valid == STATUS_SUCCESS, "a stream was made for a format that fails validation");
        MMEWaveStream* stream = opened.object();
        FUZZ_CHECK((capture ? rig->wave->captureStream() : rig->wave->renderStream()) == stream,
                   "the miniport does not hold the new stream");
        const auto* wfx =
            reinterpret_cast<const WAVEFORMATEX*>(format.data() + sizeof(KSDATAFORMAT));
        MMEDMAEmulator* dma = stream->dmaChannel();
        FUZZ_CHECK(dma && dma->wdmChannels() == wfx->nChannels &&
                       dma->wdmBits() == wfx->wBitsPerSample,
                   "the DMA channel is not shaped for the format");
        FUZZ_CHECK(dma->BufferSize() == wfx->nChannels * 4096u * bytesOf(wfx->wBitsPerSample),
                   "cyclic buffer size");
        // The port's next steps: the same format again, a start, a stop.
        const NTSTATUS again =
            opened.stream->SetFormat(reinterpret_cast<PKSDATAFORMAT>(format.data()));
        FUZZ_CHECK(again == STATUS_SUCCESS || again == STATUS_INVALID_DEVICE_STATE ||
                       again == STATUS_INVALID_PARAMETER,
                   "SetFormat status");
        ULONG framing = 0;
        const ULONG interval = opened.stream->SetNotificationFreq(10, &framing);
        FUZZ_CHECK(interval >= 1 && interval <= 256, "notification interval");
        if (flags & 2) {
            opened.stream->SetState(KSSTATE_ACQUIRE);
            opened.stream->SetState(KSSTATE_PAUSE);
            opened.stream->SetState(KSSTATE_RUN);
            ULONG position = 0;
            FUZZ_CHECK(opened.stream->GetPosition(&position) == STATUS_SUCCESS &&
                           position < dma->BufferSize() + (dma->BufferSize() == 0),
                       "position outside the cyclic buffer");
            opened.stream->SetState(KSSTATE_STOP);
        }
        fuzzsupport::Stack::close(opened);
        FUZZ_CHECK(!rig->adapter->isWaveRunning(), "the adapter still counts a stream running");
    }

    rig->restore(mark);
    return 0;
}
