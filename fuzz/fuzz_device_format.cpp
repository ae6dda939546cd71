// Fuzzes the search of the USB driver's device-info record and the wave
// filter's pin ranges built from it. The record (any counts, raw settings,
// raw patches) sits on the heap at exactly its own size, for ASan. A match
// must name a setting inside the record's capacities that carries the
// asked format (and stay a match when ranges are allowed); each streaming
// pin keeps within its range slots, every range one rate, 16 to 24 bits,
// an even channel count of 2 to 32, no rate twice.
#include "FuzzSupport.h"

#include "driver/wave/DeviceFormat.h"
#include "driver/wave/DeviceLists.h"

#include <memory>
#include <set>

namespace {

using fuzzsupport::Input;

// One pair in each device list (vendor and product 1 to 4), so inputs can
// reach every rule.
const DeviceIdPair kListed[] = {
    {0x0001, 0x0001}, {0x0002, 0x0002}, {0x0003, 0x0003}, {0x0004, 0x0004}};

void installLists() {
    DIRECTION_BY_INTERFACE_DEVICES = {&kListed[0], 1};
    INPUT_INTERFACE_ONLY_DEVICES = {&kListed[1], 1};
    STEREO_16BIT_DEVICES = {&kListed[2], 1};
    STEREO_24BIT_DEVICES = {&kListed[3], 1};
}

ULONG clamp(ULONG count, ULONG capacity) {
    return count < capacity ? count : capacity;
}

void buildRecord(Input& in, MMEDeviceInfo& info) {
    std::memset(&info, 0, sizeof(info));
    const uint8_t who = in.u8();
    info.vendorId = who >= 1 && who <= 4 ? who : in.u16();
    info.productId = who >= 1 && who <= 4 ? who : in.u16();
    info.thirdWord = in.u16();
    info.numConfigurations = in.u8();

    // Structured part: the first two configurations, a few interfaces each,
    // a few alternate settings each, taken whole from the input.
    for (unsigned c = 0; c < 2 && in.remaining(); ++c) {
        MMEDeviceConfiguration& config = info.configurations[c];
        config.numInterfaces = in.u8();
        const unsigned interfaces = in.u8() % 4;
        for (unsigned i = 0; i < interfaces && in.remaining(); ++i) {
            MMEDeviceInterface& iface = config.interfaces[i];
            iface.direction = in.u8();
            iface.numAltSettings = in.u8();
            const unsigned alts = in.u8() % 5;
            for (unsigned a = 0; a < alts && in.remaining(); ++a) {
                std::vector<uint8_t> raw = in.bytes(sizeof(MMEDeviceAltSetting));
                std::memcpy(&iface.altSettings[a], raw.data(), raw.size());
            }
        }
    }
    // Raw patches anywhere: (offset, length, bytes).
    unsigned char* base = reinterpret_cast<unsigned char*>(&info);
    const unsigned patches = in.u8() % 8;
    for (unsigned p = 0; p < patches && in.remaining(); ++p) {
        const size_t offset = in.u32() % sizeof(info);
        size_t length = in.u8();
        if (length > sizeof(info) - offset)
            length = sizeof(info) - offset;
        std::vector<uint8_t> raw = in.bytes(length);
        std::memcpy(base + offset, raw.data(), raw.size());
    }
}

bool altCarries(const MMEDeviceAltSetting& alt, ULONG rate, UCHAR bits, UCHAR channels,
                bool discreteOnly) {
    if (alt.bitsPerSample != bits || alt.channels != channels)
        return false;
    if (alt.rateKind == MME_RATES_DISCRETE) {
        for (ULONG i = 0; i < clamp(alt.numRates, MME_DEVICE_MAX_RATES); ++i)
            if (alt.rates[i] == rate)
                return true;
        return false;
    }
    return !discreteOnly && alt.lowestRate <= rate && alt.highestRate >= rate;
}

void checkQuery(const MMEDeviceInfo& info, ULONG configuration, ULONG rate, UCHAR bits,
                UCHAR channels, bool discreteOnly, bool output) {
    const DeviceFormatMatch m =
        findDeviceFormat(&info, configuration, rate, bits, channels, discreteOnly, output);
    FUZZ_CHECK(m.sampleRate == rate && m.bits == bits && m.channels == channels,
               "the match does not carry the query");
    if (!m.bFound)
        return;
    const ULONG configurations = clamp(info.numConfigurations, MME_DEVICE_MAX_CONFIGURATIONS);
    FUZZ_CHECK(configuration < configurations, "match in a configuration the record lacks");
    FUZZ_CHECK(m.configurationIndex == configuration, "match names another configuration");
    const MMEDeviceConfiguration& config = info.configurations[configuration];
    FUZZ_CHECK(m.interfaceIndex < clamp(config.numInterfaces, MME_DEVICE_MAX_INTERFACES),
               "match past the interface count");
    const MMEDeviceInterface& iface = config.interfaces[m.interfaceIndex];
    FUZZ_CHECK(m.altSettingIndex < clamp(iface.numAltSettings, MME_DEVICE_MAX_ALT_SETTINGS),
               "match past the alternate-setting count");
    const MMEDeviceAltSetting& alt = iface.altSettings[m.altSettingIndex];
    FUZZ_CHECK(altCarries(alt, rate, bits, channels, discreteOnly),
               "matched setting does not carry the format");
    FUZZ_CHECK(alt.numEndpoints != 0, "a setting without endpoints matched");
    if (discreteOnly)
        FUZZ_CHECK(
            findDeviceFormat(&info, configuration, rate, bits, channels, false, output).bFound,
            "a discrete match is lost when ranges are allowed");
}

void checkPin(const KSPIN_DESCRIPTOR& pin) {
    FUZZ_CHECK(pin.DataRangesCount <= GEN_MAX_DATA_RANGES, "too many ranges");
    std::set<ULONG> rates;
    for (ULONG i = 0; i < pin.DataRangesCount; ++i) {
        const auto* range = reinterpret_cast<const KSDATARANGE_AUDIO*>(pin.DataRanges[i]);
        FUZZ_CHECK(range->DataRange.FormatSize == sizeof(KSDATARANGE_AUDIO), "range size");
        FUZZ_CHECK(range->MinimumSampleFrequency == range->MaximumSampleFrequency,
                   "range names more than one rate");
        FUZZ_CHECK(rates.insert(range->MinimumSampleFrequency).second, "rate twice on a pin");
        FUZZ_CHECK(range->MinimumBitsPerSample == 16 && range->MaximumBitsPerSample == 24,
                   "range bits");
        const ULONG channels = range->MaximumChannels;
        FUZZ_CHECK(channels >= 2 && channels <= 32 && channels % 2 == 0, "range channels");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::initHost();
    static const bool lists = (installLists(), true);
    (void)lists;
    static std::unique_ptr<MMEDeviceInfo> info(new MMEDeviceInfo);

    Input in(data, size);
    // The query comes first: it does not depend on how much the record takes.
    const ULONG configuration = in.u8() % 6;
    const ULONG rate = in.oneOf({44100, 48000, 88200, 96000, 176400, 192000, 32000, 0});
    const UCHAR bits = in.u8();
    const UCHAR channels = in.u8();
    const uint8_t flags = in.u8();
    buildRecord(in, *info);

    checkQuery(*info, configuration, rate, bits, channels, flags & 1, flags & 2);
    checkQuery(*info, configuration, rate, bits, channels, !(flags & 1), !(flags & 2));

    // The wave filter's descriptor from the same record.
    fuzzsupport::PoolMark mark;
    {
        wavetest::LightRig rig(info.get());
        FUZZ_CHECK(rig.initStatus == STATUS_SUCCESS, "wave miniport Init failed");
        FUZZ_CHECK(rig.describe() == STATUS_SUCCESS, "GetDescription failed");
        PtGenericDescriptor* d = rig.wave->descriptor();
        FUZZ_CHECK(d != nullptr, "no descriptor");
        FUZZ_CHECK(d->FilledRatesCount <= 7, "FilledRatesCount");
        checkPin(rig.pin(WAVE_PIN_CAPTURE));
        checkPin(rig.pin(WAVE_PIN_RENDER));
        if (info->vendorId == 3 && info->productId == 3) {
            // The stereo 16-bit list narrows every range to 2 channels.
            for (ULONG pinId : {WAVE_PIN_CAPTURE, WAVE_PIN_RENDER})
                for (ULONG i = 0; i < rig.pin(pinId).DataRangesCount; ++i)
                    FUZZ_CHECK(rig.range(pinId, i).MaximumChannels == 2,
                               "a stereo-only device offers more channels");
        }
    }
    mark.check();
    fuzzsupport::requireNoReports();
    return 0;
}
