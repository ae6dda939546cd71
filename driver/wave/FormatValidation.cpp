// Checks a requested stream format against the streaming pin's data ranges
// and the digital input's lock. Runs in the caller's thread at passive
// level; reads the descriptor, which no longer changes after GetDescription.
// The format is a KSDATAFORMAT header followed by a WAVEFORMATEX; the
// caller says how many bytes are readable, and a buffer too short for both
// is refused before anything in it is read.
#include "MMEWave.h"
#include "WaveAssert.h"

namespace {

// 2, 3 or 4 for 16, 24 or 32 bits; 0 for any other resolution.
ULONG bytesPerSample(ULONG bits) {
    switch (bits) {
    case 16:
        return 2;
    case 24:
        return 3;
    case 32:
        return 4;
    default:
        return 0;
    }
}

} // namespace

bool pinSupportsSetting(const KSPIN_DESCRIPTOR* pPin, const WAVEFORMATEX* pFormat,
                        bool bAcceptLowerChannels, KSDATARANGE_AUDIO* pResultRange) {
    FunctionTrace ft("pinSupportsSetting", pPin);
    ft.num("bAcceptLowerChannels", bAcceptLowerChannels ? 1 : 0);
    if (!pPin) {
        ft.text("ERROR pPin is NULL");
        return false;
    }
    if (!pFormat) {
        ft.text("ERROR pFormat is NULL");
        return false;
    }
    if (pResultRange)
        RtlZeroMemory(pResultRange, sizeof(KSDATARANGE_AUDIO));
    if (!pPin->DataRanges)
        return false;

    const ULONG nChannels = pFormat->nChannels;
    const ULONG nBits = pFormat->wBitsPerSample;
    const ULONG nRate = pFormat->nSamplesPerSec;
    const ULONG nBlockAlign = pFormat->nBlockAlign;
    const ULONG bytes = bytesPerSample(nBits);

    const KSDATARANGE_AUDIO* accepted = nullptr;
    for (ULONG i = 0; i < pPin->DataRangesCount && !accepted; ++i) {
        const KSDATARANGE* header = pPin->DataRanges[i];
        if (!header || header->FormatSize != sizeof(KSDATARANGE_AUDIO))
            continue;
        const KSDATARANGE_AUDIO* range = reinterpret_cast<const KSDATARANGE_AUDIO*>(header);
        ft.num("CHECK RANGE CH/MINB/MAXB,FREQ", (LONG)range->MaximumChannels,
               (LONG)range->MinimumBitsPerSample, (LONG)range->MaximumBitsPerSample,
               (LONG)range->MinimumSampleFrequency);

        USHORT nExpectedBlockAlign = 0;
        ULONG lowerBlockAlign = 0;
        if (bytes != 0) {
            nExpectedBlockAlign = (USHORT)(range->MaximumChannels * bytes);
            lowerBlockAlign = nChannels * bytes;
            ft.num("nExpectedBlockAlign is ", (LONG)nExpectedBlockAlign);
        } else {
            ft.num("pFormat->wBitsPerSample invalid", (LONG)nBits);
        }

        const bool lowerAllowed = bAcceptLowerChannels && range->MaximumChannels >= nChannels &&
                                  (nChannels % 2) == 0 && nChannels != 0;
        if (range->MaximumChannels != nChannels && !lowerAllowed)
            continue;
        if (nBits < range->MinimumBitsPerSample || nBits > range->MaximumBitsPerSample)
            continue;
        if (range->MinimumSampleFrequency != nRate || range->MaximumSampleFrequency != nRate)
            continue;

        ft.num("DataRange chan/minbits/maxbits/freq exists", (LONG)range->MaximumChannels,
               (LONG)range->MinimumBitsPerSample, (LONG)range->MaximumBitsPerSample,
               (LONG)range->MinimumSampleFrequency);

        bool ok = true;
        if (bytes != 0) {
            ft.num("pFormat->wBitsPerSample valid", (LONG)nBits);
        } else {
            ft.num("pFormat->wBitsPerSample invalid", (LONG)nBits);
            ok = false;
        }
        if (nExpectedBlockAlign != nBlockAlign) {
            ft.num("nExpectedBlockAlign != pFormat->nBlockAlign", (LONG)nExpectedBlockAlign,
                   (LONG)nBlockAlign);
            ok = false;
            if (lowerAllowed && lowerBlockAlign == nBlockAlign) {
                ft.num("Accept lower channel format ch/bits/align", (LONG)nChannels, (LONG)nBits,
                       (LONG)nBlockAlign);
                ok = true;
            }
        }
        if (ok)
            accepted = range;
    }

    if (!accepted)
        return false;
    ft.num(" chan/bits/freq valid", (LONG)nChannels, (LONG)nBits, (LONG)nRate);
    if (pResultRange)
        RtlCopyMemory(pResultRange, accepted, sizeof(KSDATARANGE_AUDIO));
    return true;
}

NTSTATUS MMEWave::doValidateFormat(const KSDATAFORMAT* Format, ULONG FormatBufferSize,
                                   bool bCapture, KSDATARANGE_AUDIO* ResultRange) {
    FunctionTrace ft("MMEWave::doValidateFormat", this);
    MME_REPORT_ASSERT(Format, "MMEWave");
    if (!Format)
        return STATUS_NOT_SUPPORTED;
    if (FormatBufferSize < MME_MIN_FORMAT_SIZE) {
        ft.num("format buffer too short", (LONG)FormatBufferSize);
        return STATUS_NOT_SUPPORTED;
    }

    const WAVEFORMATEX* wfx = reinterpret_cast<const WAVEFORMATEX*>(
        reinterpret_cast<const UCHAR*>(Format) + sizeof(KSDATAFORMAT));
    ft.num("...CH/Bits/Freq", (LONG)wfx->nChannels, (LONG)wfx->wBitsPerSample,
           (LONG)wfx->nSamplesPerSec);
    ft.hex("wFormatTag", wfx->wFormatTag);
    ft.hex("nAvgBytesPerSec", wfx->nAvgBytesPerSec);
    ft.hex("nBlockAlign", wfx->nBlockAlign);
    ft.hex("cbSize", wfx->cbSize);

    const KSPIN_DESCRIPTOR* pPinDesc = getStreamPinDescriptor(bCapture);
    if (!pPinDesc) {
        ft.text("!pPinDesc");
        return STATUS_NOT_SUPPORTED;
    }

    const ULONG lockFrequency = mMMEAdapter ? mMMEAdapter->getHWDigitalLockFrequency() : 0;
    if (lockFrequency != 0) {
        ft.num("allow digital lock frequency only", (LONG)lockFrequency);
        if (wfx->nSamplesPerSec != lockFrequency) {
            ft.num("samplerate mismach requested/digital", (LONG)wfx->nSamplesPerSec,
                   (LONG)lockFrequency);
            return STATUS_NOT_SUPPORTED;
        }
    }

    if (!pinSupportsSetting(pPinDesc, wfx, false, ResultRange)) {
        ft.text("pinSupportsSettingEx returned false");
        if (!pinSupportsSetting(pPinDesc, wfx, true, ResultRange)) {
            ft.text("pinSupportsSettingEx returned false (less channels)");
            return STATUS_NOT_SUPPORTED;
        }
        ft.text("pinSupportsSettingEx returned true (less channels)");
    }

    if (Format->FormatSize >= MME_MIN_FORMAT_SIZE &&
        IsEqualGUIDAligned(Format->MajorFormat, KSDATAFORMAT_TYPE_AUDIO) &&
        IsEqualGUIDAligned(Format->Specifier, KSDATAFORMAT_SPECIFIER_WAVEFORMATEX))
        return STATUS_SUCCESS;

    TraceLine("....invalid paramter bits/channels/rate", (LONG)wfx->wBitsPerSample,
              (LONG)wfx->nChannels, (LONG)wfx->nSamplesPerSec);
    return STATUS_NOT_SUPPORTED;
}
