// Data range intersection of the wave filter: answers a client's range on a
// streaming pin with one KSDATAFORMAT_WAVEFORMATEXTENSIBLE (104 bytes),
// taking the largest channel count, resolution and rate both ranges allow.
// Refused while the pin's stream is open; bound to the hardware's rate
// while any stream is open, and to the locked rate of a digital input.
// Passive level, port request thread. Prints raw debug lines.
#include "MMEWave.h"

namespace {

// Both ranges must be KSDATARANGE_AUDIO of audio PCM; each refusal prints
// the line naming the failed test.
NTSTATUS checkAudioRange(const KSDATARANGE* range, const char* missing, const char* size,
                         const char* major, const char* sub) {
    if (!range) {
        DbgPrint("%s", missing);
        return STATUS_INVALID_PARAMETER;
    }
    if (range->FormatSize != sizeof(KSDATARANGE_AUDIO)) {
        DbgPrint("%s", size);
        return STATUS_NO_MATCH;
    }
    if (!IsEqualGUIDAligned(range->MajorFormat, KSDATAFORMAT_TYPE_AUDIO)) {
        DbgPrint("%s", major);
        return STATUS_NO_MATCH;
    }
    if (!IsEqualGUIDAligned(range->SubFormat, KSDATAFORMAT_SUBTYPE_PCM)) {
        DbgPrint("%s", sub);
        return STATUS_NO_MATCH;
    }
    return STATUS_SUCCESS;
}

ULONG minimum(ULONG a, ULONG b) {
    return a < b ? a : b;
}
ULONG maximum(ULONG a, ULONG b) {
    return a > b ? a : b;
}

} // namespace

STDMETHODIMP_(NTSTATUS)
MMEWave::DataRangeIntersection(ULONG PinId, PKSDATARANGE ClientDataRange, PKSDATARANGE MyDataRange,
                               ULONG OutputBufferLength, PVOID ResultantFormat,
                               PULONG ResultantFormatLength) {
    if (!mMMEAdapter) {
        DbgPrint("!mMMEAdapter\n");
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (!ResultantFormatLength) {
        DbgPrint("...!ResultantFormatLength\n");
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = checkAudioRange(
        ClientDataRange, "MMEWave::DataRangeIntersection !pClientDataRange\n",
        "MMEWave::DataRangeIntersection pClientDataRange->FormatSize != "
        "sizeof(KSDATARANGE_AUDIO)\n",
        "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pClientDataRange->MajorFormat, "
        "KSDATAFORMAT_TYPE_AUDIO )\n",
        "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pClientDataRange->SubFormat, "
        "KSDATAFORMAT_SUBTYPE_PCM )\n");
    if (status != STATUS_SUCCESS)
        return status;
    status = checkAudioRange(
        MyDataRange, "MMEWave::DataRangeIntersection !pMyDataRange\n",
        "MMEWave::DataRangeIntersection pMyDataRange->FormatSize != sizeof(KSDATARANGE_AUDIO)\n",
        "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pMyDataRange->MajorFormat, "
        "KSDATAFORMAT_TYPE_AUDIO )\n",
        "MMEWave::DataRangeIntersection !IsEqualGUIDAligned(pMyDataRange->SubFormat, "
        "KSDATAFORMAT_SUBTYPE_PCM )\n");
    if (status != STATUS_SUCCESS)
        return status;

    const KSPIN_DESCRIPTOR* pPinDescriptor = getPinDescriptor(PinId);
    if (!pPinDescriptor) {
        DbgPrint("MMEWave::DataRangeIntersection !pPinDescriptor\n");
        return STATUS_NO_MATCH;
    }

    bool captureOpen;
    bool renderOpen;
    openStreams(&captureOpen, &renderOpen);
    if (pPinDescriptor->DataFlow == KSPIN_DATAFLOW_OUT && captureOpen) {
        DbgPrint("MMEWave::DataRangeIntersection ERROR: capture stream already allocated\n");
        return STATUS_NO_MATCH;
    }
    if (pPinDescriptor->DataFlow == KSPIN_DATAFLOW_IN && renderOpen) {
        DbgPrint("MMEWave::DataRangeIntersection ERROR: render stream already allocated\n");
        return STATUS_NO_MATCH;
    }

    const ULONG sizeRequired = sizeof(KSDATAFORMAT_WAVEFORMATEXTENSIBLE);
    *ResultantFormatLength = sizeRequired;
    if (OutputBufferLength == 0) {
        DbgPrint("...!OutputBufferLength\n");
        return STATUS_BUFFER_OVERFLOW;
    }
    if (OutputBufferLength < sizeRequired) {
        DbgPrint("...OutputBufferLength < sizeRequired\n");
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (!ResultantFormat) {
        DbgPrint("...!ResultantFormatPtr\n");
        return STATUS_INVALID_PARAMETER;
    }

    const KSDATARANGE_AUDIO* client = reinterpret_cast<const KSDATARANGE_AUDIO*>(ClientDataRange);
    const KSDATARANGE_AUDIO* mine = reinterpret_cast<const KSDATARANGE_AUDIO*>(MyDataRange);
    KSDATARANGE_AUDIO cDataRangeIntersection;
    cDataRangeIntersection.MaximumChannels =
        minimum(client->MaximumChannels, mine->MaximumChannels);
    cDataRangeIntersection.MinimumBitsPerSample =
        maximum(client->MinimumBitsPerSample, mine->MinimumBitsPerSample);
    cDataRangeIntersection.MaximumBitsPerSample =
        minimum(client->MaximumBitsPerSample, mine->MaximumBitsPerSample);
    cDataRangeIntersection.MinimumSampleFrequency =
        maximum(client->MinimumSampleFrequency, mine->MinimumSampleFrequency);
    cDataRangeIntersection.MaximumSampleFrequency =
        minimum(client->MaximumSampleFrequency, mine->MaximumSampleFrequency);

    if (cDataRangeIntersection.MaximumChannels < 2) {
        DbgPrint("...cDataRangeIntersection.MaximumChannels < 2\n");
        return STATUS_NO_MATCH;
    }
    if (cDataRangeIntersection.MinimumBitsPerSample > cDataRangeIntersection.MaximumBitsPerSample) {
        DbgPrint("...cDataRangeIntersection.MinimumBitsPerSample > "
                 "cDataRangeIntersection.MaximumBitsPerSample\n");
        return STATUS_NO_MATCH;
    }
    if (cDataRangeIntersection.MinimumSampleFrequency >
        cDataRangeIntersection.MaximumSampleFrequency) {
        DbgPrint("...cDataRangeIntersection.MinimumSampleFrequency > "
                 "cDataRangeIntersection.MaximumSampleFrequency\n");
        return STATUS_NO_MATCH;
    }

    const ULONG uHWFrequency = mMMEAdapter->getHWSampleRate();
    const ULONG uHWDigitalLockedFrequency = mMMEAdapter->getHWDigitalLockFrequency();
    if ((captureOpen || renderOpen) &&
        cDataRangeIntersection.MinimumSampleFrequency != uHWFrequency) {
        DbgPrint("...cDataRangeIntersection.MinimumSampleFrequency != uHWFrequency\n");
        return STATUS_NO_MATCH;
    }
    if (uHWDigitalLockedFrequency != 0 &&
        cDataRangeIntersection.MinimumSampleFrequency != uHWDigitalLockedFrequency) {
        DbgPrint("...cDataRangeIntersection.MinimumSampleFrequency != "
                 "uHWDigitalLockedFrequency\n");
        return STATUS_NO_MATCH;
    }

    DbgPrint("...cDataRangeIntersection ch-max:%d bits-min:%d bits-max:%d freq-min:%d "
             "freq-max:%d\n",
             (int)cDataRangeIntersection.MaximumChannels,
             (int)cDataRangeIntersection.MinimumBitsPerSample,
             (int)cDataRangeIntersection.MaximumBitsPerSample,
             (int)cDataRangeIntersection.MinimumSampleFrequency,
             (int)cDataRangeIntersection.MaximumSampleFrequency);

    KSDATAFORMAT_WAVEFORMATEXTENSIBLE result;
    RtlZeroMemory(&result, sizeof(result));
    result.DataFormat.FormatSize = sizeRequired;
    result.DataFormat.Flags = 0;
    result.DataFormat.SampleSize = 0;
    result.DataFormat.Reserved = 0;
    result.DataFormat.MajorFormat = KSDATAFORMAT_TYPE_AUDIO;
    result.DataFormat.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    result.DataFormat.Specifier = KSDATAFORMAT_SPECIFIER_WAVEFORMATEX;

    const USHORT nChannels = (USHORT)cDataRangeIntersection.MaximumChannels;
    const USHORT wBits = (USHORT)cDataRangeIntersection.MaximumBitsPerSample;
    const ULONG nRate = cDataRangeIntersection.MaximumSampleFrequency;
    const USHORT nBlockAlign = (USHORT)(((ULONG)nChannels * wBits) / 8);
    // One bit per channel from bit 0; from 32 channels on every bit is set.
    const ULONG channelMask = nChannels >= 32 ? 0xFFFFFFFFu : ((1u << nChannels) - 1u);

    WAVEFORMATEXTENSIBLE& wfx = result.WaveFormatExt;
    wfx.Format.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
    wfx.Format.nChannels = nChannels;
    wfx.Format.nSamplesPerSec = nRate;
    wfx.Format.nAvgBytesPerSec = (ULONG)nBlockAlign * nRate;
    wfx.Format.nBlockAlign = nBlockAlign;
    wfx.Format.wBitsPerSample = wBits;
    wfx.Format.cbSize = sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX);
    wfx.Samples.wValidBitsPerSample = wBits;
    wfx.dwChannelMask = channelMask;
    wfx.SubFormat = KSDATAFORMAT_SUBTYPE_PCM;

    RtlCopyMemory(ResultantFormat, &result, sizeRequired);
    DbgPrint("datarangeintersection STATUS_SUCCESS\n");
    return STATUS_SUCCESS;
}
