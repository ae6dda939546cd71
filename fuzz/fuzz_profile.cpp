// Fuzzes the model USB driver's profile parser with arbitrary text: it
// accepts or throws a ProfileError naming a field; an accepted profile
// validates, survives a JSON round trip, and fills a record within its
// capacities in which the driver finds every mode the profile declares.
#include "FuzzSupport.h"

#include "driver/wave/DeviceFormat.h"
#include "usbsim/Profile.h"

#include <nlohmann/json.hpp>

#include <memory>

namespace {

void checkDeviceInfo(const usbsim::DeviceProfile& profile) {
    auto info = std::make_unique<MMEDeviceInfo>();
    profile.fillDeviceInfo(*info);
    FUZZ_CHECK(info->vendorId == profile.vendorId && info->productId == profile.productId,
               "identity not carried into the record");
    FUZZ_CHECK(info->numConfigurations == profile.configurations.size() &&
                   info->numConfigurations <= MME_DEVICE_MAX_CONFIGURATIONS,
               "configuration count");
    for (size_t c = 0; c < profile.configurations.size(); ++c) {
        const auto& config = profile.configurations[c];
        FUZZ_CHECK(info->configurations[c].numInterfaces == config.interfaces.size() &&
                       config.interfaces.size() <= MME_DEVICE_MAX_INTERFACES,
                   "interface count");
        for (size_t i = 0; i < config.interfaces.size(); ++i) {
            const auto& iface = config.interfaces[i];
            FUZZ_CHECK(iface.altSettings.size() <= MME_DEVICE_MAX_ALT_SETTINGS,
                       "alternate-setting count");
            for (const auto& alt : iface.altSettings) {
                FUZZ_CHECK(alt.rates.size() <= MME_DEVICE_MAX_RATES &&
                               alt.endpoints.size() <= MME_DEVICE_MAX_ENDPOINTS,
                           "rates or endpoints beyond the record's room");
                // The driver finds a declared mode on a usable endpoint of
                // the interface's direction, under the general rules.
                bool usableIn = false, usableOut = false;
                for (const auto& e : alt.endpoints) {
                    if (e.maxPacketSize >= 4)
                        ((e.address & 0x80) ? usableIn : usableOut) = true;
                }
                if (alt.flag != 1 || alt.rates.empty() || alt.continuous)
                    continue;
                for (uint32_t rate : alt.rates)
                    for (bool output : {false, true})
                        FUZZ_CHECK(!(output ? usableOut : usableIn) ||
                                       findDeviceFormat(info.get(), (ULONG)c, rate, alt.bits,
                                                        alt.channels, true, output)
                                           .bFound,
                                   std::string("a declared ") + (output ? "output" : "input") +
                                       " mode is not found");
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::initHost();
    const std::string text(reinterpret_cast<const char*>(data), size);
    usbsim::DeviceProfile profile;
    try {
        profile = usbsim::DeviceProfile::fromJsonString(text);
    } catch (const usbsim::ProfileError& e) {
        FUZZ_CHECK(!e.field().empty(), std::string("refusal without a field: ") + e.what());
        FUZZ_CHECK(std::string(e.what()).size() > e.field().size(),
                   std::string("refusal without a reason: ") + e.what());
        return 0;
    }
    // Anything else thrown escapes to libFuzzer as a crash.

    try {
        profile.validate();
    } catch (const usbsim::ProfileError& e) {
        FUZZ_CHECK(false, std::string("an accepted profile fails validation: ") + e.what());
    }
    const nlohmann::json once = profile.toJson();
    usbsim::DeviceProfile again;
    try {
        again = usbsim::DeviceProfile::fromJson(once);
    } catch (const usbsim::ProfileError& e) {
        FUZZ_CHECK(false, std::string("a profile's own JSON is refused: ") + e.what() + "\n" +
                              once.dump());
    }
    FUZZ_CHECK(again.toJson() == once,
               "round trip changed the profile:\n" + once.dump() + "\n" + again.toJson().dump());
    checkDeviceInfo(profile);
    fuzzsupport::requireNoReports();
    return 0;
}
