// Fills the streaming pins' data ranges from the device-info record: one
// KSDATARANGE_AUDIO per sample rate and direction, 16 to 24 bits, with the
// largest even channel count found at that rate. A rate with output modes
// but no input mode gets the output's modes on the capture pin too (the
// dummy input). Runs inside GetDescription at passive level; the ranges live
// in the descriptor's preallocated slots, so nothing is allocated here.
#include "DeviceLists.h"
#include "MMEWave.h"

namespace {

constexpr ULONG kRateIndexCount = 7;
const ULONG kRates[kRateIndexCount] = {32000, 44100, 48000, 88200, 96000, 176400, 192000};
// Resolutions searched for each channel count, in this order.
const UCHAR kSearchBits[] = {24, 20, 16};

bool isAudioRangeSlot(const KSDATARANGE* range) {
    return range && range->FormatSize == sizeof(KSDATARANGE_AUDIO);
}

// Both lookups of one direction: discrete rates first, then continuous ranges.
bool findMode(const MMEDeviceInfo* info, ULONG rate, UCHAR bits, UCHAR channels, bool bOutput,
              const FunctionTrace& ft) {
    const char* exact =
        bOutput ? "FOUND OUTPUT srt/bits/channels" : "FOUND INPUT srt/bits/channels";
    const char* range =
        bOutput ? "FOUND OUTPUT RANGE srt/bits/channels" : "FOUND INPUT RANGE srt/bits/channels";
    if (findDeviceFormat(info, 0, rate, bits, channels, true, bOutput).bFound) {
        ft.num(exact, (LONG)rate, (LONG)bits, (LONG)channels);
        return true;
    }
    if (findDeviceFormat(info, 0, rate, bits, channels, false, bOutput).bFound) {
        ft.num(range, (LONG)rate, (LONG)bits, (LONG)channels);
        return true;
    }
    return false;
}

} // namespace

ULONG sampleRateFromIndex(ULONG index) {
    return index < kRateIndexCount ? kRates[index] : 0;
}

bool addModeToDescriptor_real(KSPIN_DESCRIPTOR* pPin, ULONG channels, ULONG rate, ULONG bits) {
    FunctionTrace ft("addModeToDescriptor_real", pPin);
    if (!pPin) {
        ft.text("ERROR pPin is NULL");
        return false;
    }
    ft.num("DataRangesCount is ", (LONG)pPin->DataRangesCount);
    if (pPin->DataRangesCount >= GEN_MAX_DATA_RANGES) {
        ft.text("ERROR pPin->DataRangesCount >= GEN_MAX_DATA_RANGES");
        return false;
    }
    if (!pPin->DataRanges)
        return false;

    for (ULONG i = 0; i < pPin->DataRangesCount; ++i) {
        if (!isAudioRangeSlot(pPin->DataRanges[i]))
            continue;
        KSDATARANGE_AUDIO* r = reinterpret_cast<KSDATARANGE_AUDIO*>(pPin->DataRanges[i]);
        if (r->MinimumSampleFrequency != rate || r->MaximumSampleFrequency != rate)
            continue;
        if (channels > r->MaximumChannels)
            r->MaximumChannels = channels;
        if (bits < r->MinimumBitsPerSample)
            r->MinimumBitsPerSample = bits;
        if (bits > r->MaximumBitsPerSample)
            r->MaximumBitsPerSample = bits;
        return true;
    }

    KSDATARANGE* slot = pPin->DataRanges[pPin->DataRangesCount];
    if (!isAudioRangeSlot(slot)) {
        ft.text("pPin->DataRanges[pPin->DataRangesCount]->FormatSize != "
                "sizeof(KSDATARANGE_AUDIO)");
        return false;
    }
    KSDATARANGE_AUDIO* r = reinterpret_cast<KSDATARANGE_AUDIO*>(slot);
    ft.pointer("FORMAT AUDIO OK", r);
    r->MaximumChannels = channels;
    r->MinimumBitsPerSample = bits;
    r->MaximumBitsPerSample = bits;
    r->MinimumSampleFrequency = rate;
    r->MaximumSampleFrequency = rate;
    ft.num("chan/minbits/maxbits/freq", (LONG)channels, (LONG)bits, (LONG)bits, (LONG)rate);
    pPin->DataRangesCount += 1;
    ft.num("new DataRangesCount is ", (LONG)pPin->DataRangesCount);
    return true;
}

bool addModeToDescriptor(KSPIN_DESCRIPTOR* pPin, ULONG channels, ULONG rate) {
    FunctionTrace ft("addModeToDescriptor", pPin);
    // The found resolution only proves the mode exists: every mode is
    // offered as 16 and 24 bits. Both additions are always attempted.
    const bool added16 = addModeToDescriptor_real(pPin, channels, rate, 16);
    const bool added24 = addModeToDescriptor_real(pPin, channels, rate, 24);
    return added16 && added24;
}

void MMEWave::createDescriptor() {
    FunctionTrace ft("MMEWave::createDescriptor", this);
    if (!mMMEAdapter) {
        ft.text("mMMEAdapter is NULL");
        return;
    }
    if (mpDescriptor)
        return;
    mpDescriptor = generateDefaultDescriptor();
    if (!mpDescriptor)
        return;

    const ULONG pinCount = mpDescriptor->Filter.PinCount < WAVE_PIN_COUNT
                               ? mpDescriptor->Filter.PinCount
                               : (ULONG)WAVE_PIN_COUNT;
    for (ULONG i = 0; i < pinCount; ++i) {
        PCPIN_DESCRIPTOR* pin = &mpDescriptor->Pins[i];
        if (pin->MaxGlobalInstanceCount < 1)
            continue;
        ft.text("found pin to check");
        if (pin->KsPinDescriptor.DataFlow == KSPIN_DATAFLOW_OUT) {
            ft.text("Input stream FROM DEVICE");
            pin->KsPinDescriptor.DataRangesCount = 0;
        } else if (pin->KsPinDescriptor.DataFlow == KSPIN_DATAFLOW_IN) {
            ft.text("OUTPUT stream TO DEVICE");
            pin->KsPinDescriptor.DataRangesCount = 0;
        }
    }

    DeviceIdentity identity;
    identity.set(0, 0, 0);
    bool rateOn[kRateIndexCount] = {false, true, true, true, true, true, true};
    UCHAR nMinChannels = 2;
    UCHAR nMaxChannels = 32;
    UCHAR nMinBits = 16;
    UCHAR nMaxBits = 24;

    const MMEDeviceInfo* info = mMMEAdapter->getAPIDeviceInfo();
    if (info)
        identity.set(info->vendorId, info->productId, info->thirdWord);

    if (STEREO_16BIT_DEVICES.contains(identity)) {
        nMinChannels = nMaxChannels = 2;
        nMinBits = nMaxBits = 16;
        rateOn[3] = rateOn[4] = false;
    }
    if (STEREO_24BIT_DEVICES.contains(identity)) {
        nMinChannels = nMaxChannels = 2;
        nMinBits = 16;
        nMaxBits = 24;
        rateOn[3] = rateOn[4] = false;
    }

    for (ULONG index = 0; index < kRateIndexCount; ++index) {
        const ULONG rate = sampleRateFromIndex(index);
        if (rateOn[index] && rate != 0)
            fillDescriptor(rate, nMinChannels, nMaxChannels, nMinBits, nMaxBits);
    }
}

void MMEWave::fillDescriptor(ULONG uSampleRate, UCHAR nMinChannels, UCHAR nMaxChannels,
                             UCHAR nMinBits, UCHAR nMaxBits) {
    FunctionTrace ft("MMEWave::fillDescriptor", this);
    ft.num("uSampleRate is ", (LONG)uSampleRate);
    ft.num("nMinChannels/nMaxChannels", (LONG)nMinChannels, (LONG)nMaxChannels);
    ft.num("nMinBits/nMaxBits", (LONG)nMinBits, (LONG)nMaxBits);
    if (!mMMEAdapter) {
        ft.text("mMMEAdapter is NULL");
        return;
    }
    const MMEDeviceInfo* pAPI_DI = mMMEAdapter->getAPIDeviceInfo();
    if (!pAPI_DI) {
        ft.text("pAPI_DI is NULL");
        return;
    }
    if (!mpDescriptor)
        return;

    const ULONG pinCount = mpDescriptor->Filter.PinCount < WAVE_PIN_COUNT
                               ? mpDescriptor->Filter.PinCount
                               : (ULONG)WAVE_PIN_COUNT;
    bool foundInput = false;
    bool added = false;
    bool dummyPass = false;

    for (;;) {
        // Counted in 32 bits, so no channel limit can wrap the loop.
        for (ULONG ch = nMinChannels; ch <= nMaxChannels; ch += 2) {
            for (UCHAR bits : kSearchBits) {
                if (bits < nMinBits || bits > nMaxBits)
                    continue;
                const bool input = findMode(pAPI_DI, uSampleRate, bits, (UCHAR)ch, false, ft);
                const bool output = findMode(pAPI_DI, uSampleRate, bits, (UCHAR)ch, true, ft);
                if (!input && !output)
                    continue;

                for (ULONG i = 0; i < pinCount; ++i) {
                    PCPIN_DESCRIPTOR* pin = &mpDescriptor->Pins[i];
                    if (pin->MaxGlobalInstanceCount == 0)
                        continue;
                    const KSPIN_DATAFLOW flow = pin->KsPinDescriptor.DataFlow;
                    if (input && flow == KSPIN_DATAFLOW_OUT) {
                        ft.text("Input stream FROM DEVICE");
                        foundInput = true;
                    } else if (!dummyPass && output && flow == KSPIN_DATAFLOW_IN) {
                        ft.text("OUTPUT stream TO DEVICE");
                    } else if (dummyPass && output && flow == KSPIN_DATAFLOW_OUT) {
                        ft.text("Dummy Input stream FROM DEVICE");
                        foundInput = true;
                    } else {
                        continue;
                    }
                    if (addModeToDescriptor(&pin->KsPinDescriptor, ch, uSampleRate))
                        added = true;
                }
            }
        }
        if (foundInput || dummyPass)
            break;
        dummyPass = true;
    }

    if (added)
        mpDescriptor->FilledRatesCount += 1;
}
