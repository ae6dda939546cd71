// Device profile of the model USB driver: what the device reports about
// itself (identity, USB configurations -> interfaces -> alternate settings
// with formats and endpoints), the hardware configuration it starts in, the
// configurations it accepts on a change request, the digital lock frequency,
// ring and period sizes, and an optional schedule of device-side events.
//
// Profiles come from the built-in default or from JSON. Every profile is
// validated once, up front, against the capacities of the device-info record
// and the model's own limits; a problem throws ProfileError whose message
// starts with the path of the offending field, e.g.
//   "configurations[0].interfaces[1].altSettings[2].rates: 17 rates, at most 16".
// Unknown JSON fields are refused too, so a misspelt key never goes unnoticed.
#pragma once

#include "driver/common/MMEAdapterInfo.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace usbsim {

class ProfileError : public std::runtime_error {
public:
    ProfileError(std::string field, const std::string& problem);
    const std::string& field() const { return mField; }

private:
    std::string mField;
};

struct EndpointDesc {
    uint16_t maxPacketSize = 0; // bytes; below 4 the endpoint is not usable
    uint8_t address = 0;        // bit 7 set = IN; bits 0..3 the endpoint number (1..15)
};

struct AltSettingDesc {
    uint8_t flag = 1;
    uint8_t bits = 24;    // 16, 20, 24 or 32; 0 only for a zero-bandwidth setting
    uint8_t channels = 2; // 1..32; 0 only for a zero-bandwidth setting
    bool continuous = false;
    std::vector<uint32_t> rates; // discrete rates (when !continuous), Hz
    uint32_t minRate = 0;        // continuous range, Hz
    uint32_t maxRate = 0;
    std::vector<EndpointDesc> endpoints;
};

struct InterfaceDesc {
    uint8_t direction = MME_DIRECTION_OUTPUT; // MME_DIRECTION_INPUT = device to host
    std::vector<AltSettingDesc> altSettings;
};

struct ConfigurationDesc {
    std::vector<InterfaceDesc> interfaces;
};

// A refusal rule matches a requested configuration when every field it sets
// equals the request's field.
struct RefusalRule {
    std::optional<uint32_t> fr, inCH, outCH, inRes, outRes, config;
    std::string reason;
    bool matches(const ChannelConfig& c) const;
};

// Which configurations a USBCall_ChangeConfig may put the hardware into.
struct AcceptRules {
    std::vector<uint32_t> rates; // empty: any rate
    uint32_t minInChannels = 1, maxInChannels = 32;
    uint32_t minOutChannels = 1, maxOutChannels = 32;
    std::vector<uint32_t> inResolutions{16, 24};
    std::vector<uint32_t> outResolutions{16, 24};
    std::vector<uint32_t> configWords; // empty: any
    bool lockedRateOnly = true;        // with a digital lock, only the locked rate
    std::vector<RefusalRule> refuse;
};

enum class EventKind {
    MMEAttach,
    MMEDetach,
    AsioAttach,
    AsioDetach,
    TimedStart,
    PreventFurtherCalls,
    ExclusiveInputsOn,
    ExclusiveInputsOff,
    DigitalLock, // value: Hz (0 = unlocked)
    SampleRate,  // value: Hz; the hardware changes rate and reports it
    Unplug,      // value: ms of the clock until the replug (0 = stays unplugged)
    Replug,
    Sleep, // value: ms the system sleeps (the device goes to D3 and back)
};
const char* eventName(EventKind kind);
std::optional<EventKind> eventFromName(const std::string& name);

struct ScheduledEvent {
    uint64_t period = 0; // fires at the start of this period (0 = the first)
    EventKind kind = EventKind::MMEAttach;
    uint32_t value = 0;
};

struct DeviceProfile {
    std::string name = "unnamed";
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    uint16_t thirdWord = 0;
    std::vector<ConfigurationDesc> configurations;
    ChannelConfig hardware{}; // the configuration the hardware starts in
    uint32_t digitalLockHz = 0;
    AcceptRules accept;
    uint32_t periodFrames = 256;       // frames the device moves per period
    uint32_t ringFrames = 0;           // 0: the largest multiple of the period that fits
    uint32_t captureStartPosition = 0; // initial mWritePos of the capture ring
    uint32_t renderStartPosition = 0;  // initial mWritePos of the render ring
    std::vector<ScheduledEvent> schedule;

    // 8 in / 8 out, 24 and 16 bits, discrete rates 44100 to 192000 Hz, 48000 Hz at start.
    static DeviceProfile builtInDefault();
    static DeviceProfile fromJson(const nlohmann::json& j); // throws ProfileError
    static DeviceProfile fromJsonString(const std::string& text);
    static DeviceProfile fromJsonFile(const std::string& path);
    nlohmann::json toJson() const;

    void validate() const; // throws ProfileError

    // Writes the device-info record; the record is zeroed first.
    void fillDeviceInfo(MMEDeviceInfo& info) const;

    // Whether a change request is accepted with the given lock frequency;
    // on refusal, why.
    bool accepts(const ChannelConfig& wanted, uint32_t lockHz, std::string* reason) const;

    // Frames of a ring with this many channels (period and ringFrames applied).
    uint32_t ringFramesFor(uint32_t channels) const;
};

// What the driver does with the rings, as far as ring sizes depend on it: it
// moves passes of 256 frames and writes render frames 1700 ahead.
constexpr uint32_t kDriverPassFrames = 256;
constexpr uint32_t kDriverWriteAheadFrames = 1700;

// Frames a ring must hold so that the driver's writes 1700 frames ahead and
// two passes of 256 never reach what the device is reading.
uint32_t minimumRingFrames(uint32_t periodFrames);

// A zero-filled device-info record on the heap with raw setters that write
// any count, valid or not: for feeding bad records to the driver.
class RawDeviceInfo {
public:
    RawDeviceInfo();
    explicit RawDeviceInfo(const DeviceProfile& profile);
    MMEDeviceInfo& info() { return *mInfo; }
    MMEDeviceInfo* get() { return mInfo.get(); }

    RawDeviceInfo& ids(uint16_t vendor, uint16_t product, uint16_t third = 0);
    RawDeviceInfo& numConfigurations(uint8_t n);
    RawDeviceInfo& numInterfaces(unsigned cfg, uint8_t n);
    RawDeviceInfo& numAltSettings(unsigned cfg, unsigned itf, uint8_t n);
    RawDeviceInfo& numRates(unsigned cfg, unsigned itf, unsigned alt, uint8_t n);
    RawDeviceInfo& numEndpoints(unsigned cfg, unsigned itf, unsigned alt, uint8_t n);
    MMEDeviceAltSetting& alt(unsigned cfg, unsigned itf, unsigned alt);

private:
    std::unique_ptr<MMEDeviceInfo> mInfo;
};

} // namespace usbsim
