// Device profiles: built-in default, JSON reading and writing, validation,
// acceptance of configuration changes and the device-info record.
#include "usbsim/Profile.h"

#include "driver/common/AudioSM.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace usbsim {

using nlohmann::json;

ProfileError::ProfileError(std::string field, const std::string& problem)
    : std::runtime_error(field.empty() ? problem : field + ": " + problem),
      mField(std::move(field)) {}

bool RefusalRule::matches(const ChannelConfig& c) const {
    return (!fr || *fr == c.fr) && (!inCH || *inCH == c.inCH) && (!outCH || *outCH == c.outCH) &&
           (!inRes || *inRes == c.inRes) && (!outRes || *outRes == c.outRes) &&
           (!config || *config == c.config);
}

namespace {

const struct {
    EventKind kind;
    const char* name;
} kEventNames[] = {
    {EventKind::MMEAttach, "mmeAttach"},
    {EventKind::MMEDetach, "mmeDetach"},
    {EventKind::AsioAttach, "asioAttach"},
    {EventKind::AsioDetach, "asioDetach"},
    {EventKind::TimedStart, "timedStart"},
    {EventKind::PreventFurtherCalls, "preventFurtherCalls"},
    {EventKind::ExclusiveInputsOn, "exclusiveInputsOn"},
    {EventKind::ExclusiveInputsOff, "exclusiveInputsOff"},
    {EventKind::DigitalLock, "digitalLock"},
    {EventKind::SampleRate, "sampleRate"},
    {EventKind::Unplug, "unplug"},
    {EventKind::Replug, "replug"},
    {EventKind::Sleep, "sleep"},
};

// Device-life events last at most an hour of the clock.
constexpr uint32_t kMaxLifeMs = 3600000;

bool validBits(uint32_t bits) {
    return bits == 16 || bits == 20 || bits == 24 || bits == 32;
}

constexpr uint32_t kMinRate = 1000;
constexpr uint32_t kMaxRate = 768000;
constexpr uint32_t kMaxChannels = 32;
constexpr uint32_t kMaxPeriod = 4096;

std::string hex(uint32_t v, int digits) {
    std::ostringstream s;
    s << "0x" << std::hex << std::uppercase;
    s.width(digits);
    s.fill('0');
    s << v;
    return s.str();
}

// Reads one JSON object, remembering its path and which keys were used, so
// that unknown keys can be refused by name.
class Reader {
public:
    Reader(const json& j, std::string path) : mJ(j), mPath(std::move(path)) {
        if (!mJ.is_object())
            throw ProfileError(mPath.empty() ? "(profile)" : mPath,
                               std::string("expected an object, found ") + mJ.type_name());
    }

    std::string at(const std::string& key) const { return mPath.empty() ? key : mPath + "." + key; }
    bool has(const char* key) {
        mUsed.insert(key);
        return mJ.contains(key);
    }
    const json& raw(const char* key) {
        mUsed.insert(key);
        return mJ.at(key);
    }

    // Unsigned number within [lo, hi]; accepts "0x.." strings too.
    uint64_t number(const char* key, uint64_t lo, uint64_t hi) {
        return numberOf(raw(key), at(key), lo, hi);
    }
    uint64_t number(const char* key, uint64_t lo, uint64_t hi, uint64_t fallback) {
        return has(key) ? number(key, lo, hi) : fallback;
    }
    bool boolean(const char* key, bool fallback) {
        if (!has(key))
            return fallback;
        const json& v = raw(key);
        if (!v.is_boolean())
            throw ProfileError(at(key),
                               std::string("expected true or false, found ") + v.type_name());
        return v.get<bool>();
    }
    std::string text(const char* key, const std::string& fallback) {
        if (!has(key))
            return fallback;
        const json& v = raw(key);
        if (!v.is_string())
            throw ProfileError(at(key), std::string("expected a string, found ") + v.type_name());
        return v.get<std::string>();
    }
    const json& array(const char* key) {
        const json& v = raw(key);
        if (!v.is_array())
            throw ProfileError(at(key), std::string("expected an array, found ") + v.type_name());
        return v;
    }
    void require(const char* key) {
        if (!has(key))
            throw ProfileError(at(key), "missing");
    }
    void finish() const {
        for (auto it = mJ.begin(); it != mJ.end(); ++it)
            if (!mUsed.count(it.key()))
                throw ProfileError(at(it.key()), "unknown field");
    }

    static uint64_t numberOf(const json& v, const std::string& path, uint64_t lo, uint64_t hi) {
        uint64_t n = 0;
        if (v.is_number_unsigned()) {
            n = v.get<uint64_t>();
        } else if (v.is_number_integer()) {
            int64_t s = v.get<int64_t>();
            if (s < 0)
                throw ProfileError(path, std::to_string(s) + " is negative");
            n = uint64_t(s);
        } else if (v.is_number_float()) {
            throw ProfileError(path, v.dump() + " is not a whole number");
        } else if (v.is_string()) {
            const std::string s = v.get<std::string>();
            size_t used = 0;
            try {
                n = std::stoull(s, &used, 0);
            } catch (const std::exception&) {
                used = 0;
            }
            if (s.empty() || used != s.size() || s[0] == '-')
                throw ProfileError(path, "\"" + s + "\" is not a number");
        } else {
            throw ProfileError(path, std::string("expected a number, found ") + v.type_name());
        }
        if (n < lo || n > hi)
            throw ProfileError(path, std::to_string(n) + " is out of range " + std::to_string(lo) +
                                         ".." + std::to_string(hi));
        return n;
    }

private:
    const json& mJ;
    std::string mPath;
    std::set<std::string> mUsed;
};

std::vector<uint32_t> numberList(const json& arr, const std::string& path, uint64_t lo,
                                 uint64_t hi) {
    std::vector<uint32_t> out;
    for (size_t i = 0; i < arr.size(); ++i)
        out.push_back(
            uint32_t(Reader::numberOf(arr[i], path + "[" + std::to_string(i) + "]", lo, hi)));
    return out;
}

// Counts are checked against the record's capacities before anything is
// read element by element, so the error names the count, not an element.
void checkCount(const json& arr, const std::string& path, size_t most, const char* what) {
    if (arr.size() > most)
        throw ProfileError(path, std::to_string(arr.size()) + " " + what + ", at most " +
                                     std::to_string(most));
}

uint8_t parseDirection(Reader& r, const char* key) {
    const json& v = r.raw(key);
    if (v.is_string()) {
        std::string s = v.get<std::string>();
        if (s == "input" || s == "in")
            return MME_DIRECTION_INPUT;
        if (s == "output" || s == "out")
            return MME_DIRECTION_OUTPUT;
        throw ProfileError(r.at(key), "\"" + s + "\" is not \"input\" or \"output\"");
    }
    return uint8_t(r.number(key, 0, 1));
}

EndpointDesc parseEndpoint(const json& j, const std::string& path) {
    Reader r(j, path);
    EndpointDesc e;
    r.require("maxPacketSize");
    e.maxPacketSize = uint16_t(r.number("maxPacketSize", 0, 0xFFFF));
    r.require("address");
    e.address = uint8_t(r.number("address", 0, 0xFF));
    r.finish();
    return e;
}

AltSettingDesc parseAlt(const json& j, const std::string& path) {
    Reader r(j, path);
    AltSettingDesc a;
    a.flag = uint8_t(r.number("flag", 0, 0xFF, 1));
    r.require("bits");
    a.bits = uint8_t(r.number("bits", 0, 0xFF));
    r.require("channels");
    a.channels = uint8_t(r.number("channels", 0, 0xFF));
    const bool hasRates = r.has("rates");
    const bool hasRange = r.has("rateRange");
    if (hasRates && hasRange)
        throw ProfileError(r.at("rateRange"), "give either rates or rateRange, not both");
    if (hasRates) {
        const json& rates = r.array("rates");
        checkCount(rates, r.at("rates"), MME_DEVICE_MAX_RATES, "rates");
        a.rates = numberList(rates, r.at("rates"), 0, 0xFFFFFFFFu);
    } else if (hasRange) {
        Reader range(r.raw("rateRange"), r.at("rateRange"));
        a.continuous = true;
        range.require("min");
        a.minRate = uint32_t(range.number("min", 0, 0xFFFFFFFFu));
        range.require("max");
        a.maxRate = uint32_t(range.number("max", 0, 0xFFFFFFFFu));
        range.finish();
    }
    if (r.has("endpoints")) {
        const json& eps = r.array("endpoints");
        checkCount(eps, r.at("endpoints"), MME_DEVICE_MAX_ENDPOINTS, "endpoints");
        for (size_t i = 0; i < eps.size(); ++i)
            a.endpoints.push_back(
                parseEndpoint(eps[i], r.at("endpoints") + "[" + std::to_string(i) + "]"));
    }
    r.finish();
    return a;
}

InterfaceDesc parseInterface(const json& j, const std::string& path) {
    Reader r(j, path);
    InterfaceDesc itf;
    r.require("direction");
    itf.direction = parseDirection(r, "direction");
    r.require("altSettings");
    const json& alts = r.array("altSettings");
    checkCount(alts, r.at("altSettings"), MME_DEVICE_MAX_ALT_SETTINGS, "alternate settings");
    for (size_t i = 0; i < alts.size(); ++i)
        itf.altSettings.push_back(
            parseAlt(alts[i], r.at("altSettings") + "[" + std::to_string(i) + "]"));
    r.finish();
    return itf;
}

ChannelConfig parseChannelConfig(const json& j, const std::string& path) {
    Reader r(j, path);
    ChannelConfig c{};
    const char* keys[] = {"fr", "inCH", "outCH", "inRes", "outRes"};
    ULONG* fields[] = {&c.fr, &c.inCH, &c.outCH, &c.inRes, &c.outRes};
    for (size_t i = 0; i < 5; ++i) {
        r.require(keys[i]);
        *fields[i] = ULONG(r.number(keys[i], 0, 0xFFFFFFFFu));
    }
    c.config = ULONG(r.number("config", 0, 0xFFFFFFFFu, 0));
    r.finish();
    return c;
}

RefusalRule parseRefusal(const json& j, const std::string& path) {
    Reader r(j, path);
    RefusalRule rule;
    auto opt = [&](const char* key, std::optional<uint32_t>& field) {
        if (r.has(key))
            field = uint32_t(r.number(key, 0, 0xFFFFFFFFu));
    };
    opt("fr", rule.fr);
    opt("inCH", rule.inCH);
    opt("outCH", rule.outCH);
    opt("inRes", rule.inRes);
    opt("outRes", rule.outRes);
    opt("config", rule.config);
    rule.reason = r.text("reason", "refused by the profile");
    r.finish();
    if (!rule.fr && !rule.inCH && !rule.outCH && !rule.inRes && !rule.outRes && !rule.config)
        throw ProfileError(path, "a refusal rule needs at least one of fr, inCH, outCH, inRes, "
                                 "outRes, config");
    return rule;
}

AcceptRules parseAccept(const json& j, const std::string& path) {
    Reader r(j, path);
    AcceptRules a;
    if (r.has("rates"))
        a.rates = numberList(r.array("rates"), r.at("rates"), 0, 0xFFFFFFFFu);
    a.minInChannels = uint32_t(r.number("minInChannels", 0, kMaxChannels, a.minInChannels));
    a.maxInChannels = uint32_t(r.number("maxInChannels", 0, kMaxChannels, a.maxInChannels));
    a.minOutChannels = uint32_t(r.number("minOutChannels", 0, kMaxChannels, a.minOutChannels));
    a.maxOutChannels = uint32_t(r.number("maxOutChannels", 0, kMaxChannels, a.maxOutChannels));
    if (r.has("inResolutions"))
        a.inResolutions = numberList(r.array("inResolutions"), r.at("inResolutions"), 0, 255);
    if (r.has("outResolutions"))
        a.outResolutions = numberList(r.array("outResolutions"), r.at("outResolutions"), 0, 255);
    if (r.has("configWords"))
        a.configWords = numberList(r.array("configWords"), r.at("configWords"), 0, 0xFFFFFFFFu);
    a.lockedRateOnly = r.boolean("lockedRateOnly", a.lockedRateOnly);
    if (r.has("refuse")) {
        const json& rules = r.array("refuse");
        for (size_t i = 0; i < rules.size(); ++i)
            a.refuse.push_back(
                parseRefusal(rules[i], r.at("refuse") + "[" + std::to_string(i) + "]"));
    }
    r.finish();
    return a;
}

ScheduledEvent parseEvent(const json& j, const std::string& path) {
    Reader r(j, path);
    ScheduledEvent e;
    r.require("period");
    e.period = r.number("period", 0, UINT64_MAX);
    r.require("event");
    std::string name = r.text("event", "");
    auto kind = eventFromName(name);
    if (!kind)
        throw ProfileError(r.at("event"), "unknown event \"" + name + "\"");
    e.kind = *kind;
    if (e.kind == EventKind::DigitalLock || e.kind == EventKind::SampleRate ||
        e.kind == EventKind::Sleep) {
        r.require("value");
        e.value = uint32_t(r.number("value", 0, 0xFFFFFFFFu));
    } else if (e.kind == EventKind::Unplug && r.has("value")) {
        e.value = uint32_t(r.number("value", 0, 0xFFFFFFFFu));
    } else if (r.has("value")) {
        throw ProfileError(r.at("value"), std::string("event \"") + name + "\" takes no value");
    }
    r.finish();
    return e;
}

json toJsonConfig(const ChannelConfig& c) {
    return json{{"fr", c.fr},       {"inCH", c.inCH},     {"outCH", c.outCH},
                {"inRes", c.inRes}, {"outRes", c.outRes}, {"config", c.config}};
}

std::string describe(const ChannelConfig& c) {
    std::ostringstream s;
    s << c.fr << " Hz, " << c.inCH << " in x " << c.inRes << " bits, " << c.outCH << " out x "
      << c.outRes << " bits, config " << c.config;
    return s.str();
}

bool contains(const std::vector<uint32_t>& v, uint32_t x) {
    return std::find(v.begin(), v.end(), x) != v.end();
}

void validateAlt(const AltSettingDesc& a, const std::string& path) {
    const bool idle = a.endpoints.empty() && a.bits == 0 && a.channels == 0;
    if (idle) {
        if (!a.rates.empty() || a.continuous)
            throw ProfileError(path + ".rates", "a zero-bandwidth setting (no endpoints, 0 bits, "
                                                "0 channels) carries no rates");
        return;
    }
    if (!validBits(a.bits))
        throw ProfileError(path + ".bits",
                           std::to_string(a.bits) + " is not one of 16, 20, 24, 32");
    if (a.channels < 1 || a.channels > kMaxChannels)
        throw ProfileError(path + ".channels",
                           std::to_string(a.channels) + " is out of range 1..32");
    if (a.continuous) {
        if (a.minRate < kMinRate || a.minRate > kMaxRate)
            throw ProfileError(path + ".rateRange.min",
                               std::to_string(a.minRate) + " Hz is out of range 1000..768000");
        if (a.maxRate < kMinRate || a.maxRate > kMaxRate)
            throw ProfileError(path + ".rateRange.max",
                               std::to_string(a.maxRate) + " Hz is out of range 1000..768000");
        if (a.minRate > a.maxRate)
            throw ProfileError(path + ".rateRange", "min " + std::to_string(a.minRate) +
                                                        " is above max " +
                                                        std::to_string(a.maxRate));
    } else {
        if (a.rates.empty())
            throw ProfileError(path + ".rates", "no rates (give rates or rateRange)");
        if (a.rates.size() > MME_DEVICE_MAX_RATES)
            throw ProfileError(path + ".rates",
                               std::to_string(a.rates.size()) + " rates, at most 16");
        for (size_t i = 0; i < a.rates.size(); ++i) {
            if (a.rates[i] < kMinRate || a.rates[i] > kMaxRate)
                throw ProfileError(path + ".rates[" + std::to_string(i) + "]",
                                   std::to_string(a.rates[i]) + " Hz is out of range 1000..768000");
            for (size_t k = 0; k < i; ++k)
                if (a.rates[k] == a.rates[i])
                    throw ProfileError(path + ".rates[" + std::to_string(i) + "]",
                                       std::to_string(a.rates[i]) + " Hz is listed twice");
        }
    }
    if (a.endpoints.size() > MME_DEVICE_MAX_ENDPOINTS)
        throw ProfileError(path + ".endpoints",
                           std::to_string(a.endpoints.size()) + " endpoints, at most 4");
    for (size_t i = 0; i < a.endpoints.size(); ++i) {
        const uint8_t addr = a.endpoints[i].address;
        if ((addr & 0x70) != 0 || (addr & 0x0F) == 0)
            throw ProfileError(path + ".endpoints[" + std::to_string(i) + "].address",
                               hex(addr, 2) +
                                   " is not a data endpoint address (number 1..15, bit 7 = IN)");
    }
}

void validateConfig(const ChannelConfig& c, const std::string& path) {
    if (c.fr < kMinRate || c.fr > kMaxRate)
        throw ProfileError(path + ".fr", std::to_string(c.fr) + " Hz is out of range 1000..768000");
    if (c.inCH > kMaxChannels)
        throw ProfileError(path + ".inCH", std::to_string(c.inCH) + " is out of range 0..32");
    if (c.outCH > kMaxChannels)
        throw ProfileError(path + ".outCH", std::to_string(c.outCH) + " is out of range 0..32");
    if (!validBits(c.inRes))
        throw ProfileError(path + ".inRes",
                           std::to_string(c.inRes) + " is not one of 16, 20, 24, 32");
    if (!validBits(c.outRes))
        throw ProfileError(path + ".outRes",
                           std::to_string(c.outRes) + " is not one of 16, 20, 24, 32");
}

} // namespace

const char* eventName(EventKind kind) {
    for (const auto& e : kEventNames)
        if (e.kind == kind)
            return e.name;
    return "?";
}

std::optional<EventKind> eventFromName(const std::string& name) {
    for (const auto& e : kEventNames)
        if (name == e.name)
            return e.kind;
    return std::nullopt;
}

uint32_t minimumRingFrames(uint32_t periodFrames) {
    return kDriverWriteAheadFrames + 2 * kDriverPassFrames + 2 * periodFrames;
}

DeviceProfile DeviceProfile::builtInDefault() {
    DeviceProfile p;
    p.name = "default";
    p.vendorId = 0x1209; // the shared open-hardware vendor id
    p.productId = 0x4D4D;
    p.thirdWord = 0x0100;
    const std::vector<uint32_t> rates{44100, 48000, 88200, 96000, 176400, 192000};
    auto alt = [&](uint8_t bits, uint8_t address) {
        AltSettingDesc a;
        a.flag = 1;
        a.bits = bits;
        a.channels = 8;
        a.rates = rates;
        // one high-speed microframe at 192 kHz: 25 frames of 8 channels
        a.endpoints.push_back({uint16_t(25 * 8 * (bits == 16 ? 2 : 4)), address});
        return a;
    };
    ConfigurationDesc cfg;
    InterfaceDesc out;
    out.direction = MME_DIRECTION_OUTPUT;
    out.altSettings = {AltSettingDesc{0, 0, 0, false, {}, 0, 0, {}}, alt(24, 0x01), alt(16, 0x01)};
    InterfaceDesc in;
    in.direction = MME_DIRECTION_INPUT;
    in.altSettings = {AltSettingDesc{0, 0, 0, false, {}, 0, 0, {}}, alt(24, 0x82), alt(16, 0x82)};
    cfg.interfaces = {out, in};
    p.configurations = {cfg};
    p.hardware = ChannelConfig{48000, 8, 8, 24, 24, 0};
    p.accept.rates = rates;
    p.accept.minInChannels = 1;
    p.accept.maxInChannels = 8;
    p.accept.minOutChannels = 1;
    p.accept.maxOutChannels = 8;
    p.accept.inResolutions = {16, 24};
    p.accept.outResolutions = {16, 24};
    return p;
}

DeviceProfile DeviceProfile::fromJson(const json& j) {
    Reader r(j, "");
    DeviceProfile p;
    p.name = r.text("name", "unnamed");
    r.require("vendorId");
    p.vendorId = uint16_t(r.number("vendorId", 0, 0xFFFF));
    r.require("productId");
    p.productId = uint16_t(r.number("productId", 0, 0xFFFF));
    p.thirdWord = uint16_t(r.number("thirdWord", 0, 0xFFFF, 0));
    r.require("configurations");
    const json& cfgs = r.array("configurations");
    checkCount(cfgs, "configurations", MME_DEVICE_MAX_CONFIGURATIONS, "configurations");
    for (size_t c = 0; c < cfgs.size(); ++c) {
        const std::string path = "configurations[" + std::to_string(c) + "]";
        Reader cr(cfgs[c], path);
        ConfigurationDesc cfg;
        cr.require("interfaces");
        const json& itfs = cr.array("interfaces");
        checkCount(itfs, cr.at("interfaces"), MME_DEVICE_MAX_INTERFACES, "interfaces");
        for (size_t i = 0; i < itfs.size(); ++i)
            cfg.interfaces.push_back(
                parseInterface(itfs[i], cr.at("interfaces") + "[" + std::to_string(i) + "]"));
        cr.finish();
        p.configurations.push_back(std::move(cfg));
    }
    r.require("hardware");
    p.hardware = parseChannelConfig(r.raw("hardware"), "hardware");
    p.digitalLockHz = uint32_t(r.number("digitalLockHz", 0, 0xFFFFFFFFu, 0));
    if (r.has("accept"))
        p.accept = parseAccept(r.raw("accept"), "accept");
    p.periodFrames = uint32_t(r.number("periodFrames", 0, 0xFFFFFFFFu, p.periodFrames));
    p.ringFrames = uint32_t(r.number("ringFrames", 0, 0xFFFFFFFFu, 0));
    p.captureStartPosition = uint32_t(r.number("captureStartPosition", 0, 0xFFFFFFFFu, 0));
    p.renderStartPosition = uint32_t(r.number("renderStartPosition", 0, 0xFFFFFFFFu, 0));
    if (r.has("schedule")) {
        const json& events = r.array("schedule");
        for (size_t i = 0; i < events.size(); ++i)
            p.schedule.push_back(parseEvent(events[i], "schedule[" + std::to_string(i) + "]"));
    }
    r.finish();
    p.validate();
    return p;
}

DeviceProfile DeviceProfile::fromJsonString(const std::string& text) {
    json j;
    try {
        j = json::parse(text);
    } catch (const json::exception& e) {
        // parse_error, and out_of_range for numbers too large to hold.
        throw ProfileError("(profile)", std::string("not valid JSON: ") + e.what());
    }
    return fromJson(j);
}

DeviceProfile DeviceProfile::fromJsonFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw ProfileError(path, "cannot open the profile file");
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad())
        throw ProfileError(path, "cannot read the profile file");
    try {
        return fromJsonString(text.str());
    } catch (const ProfileError& e) {
        throw ProfileError(
            e.field(), std::string(e.what()).substr(e.field().empty() ? 0 : e.field().size() + 2) +
                           " (in " + path + ")");
    }
}

json DeviceProfile::toJson() const {
    json j;
    j["name"] = name;
    j["vendorId"] = hex(vendorId, 4);
    j["productId"] = hex(productId, 4);
    j["thirdWord"] = hex(thirdWord, 4);
    json cfgs = json::array();
    for (const auto& cfg : configurations) {
        json itfs = json::array();
        for (const auto& itf : cfg.interfaces) {
            json alts = json::array();
            for (const auto& a : itf.altSettings) {
                json ja{{"flag", a.flag}, {"bits", a.bits}, {"channels", a.channels}};
                if (a.continuous)
                    ja["rateRange"] = json{{"min", a.minRate}, {"max", a.maxRate}};
                else if (!a.rates.empty())
                    ja["rates"] = a.rates;
                if (!a.endpoints.empty()) {
                    json eps = json::array();
                    for (const auto& e : a.endpoints)
                        eps.push_back(json{{"maxPacketSize", e.maxPacketSize},
                                           {"address", hex(e.address, 2)}});
                    ja["endpoints"] = eps;
                }
                alts.push_back(ja);
            }
            itfs.push_back(
                json{{"direction", itf.direction == MME_DIRECTION_INPUT ? "input" : "output"},
                     {"altSettings", alts}});
        }
        cfgs.push_back(json{{"interfaces", itfs}});
    }
    j["configurations"] = cfgs;
    j["hardware"] = toJsonConfig(hardware);
    j["digitalLockHz"] = digitalLockHz;
    json acc{{"minInChannels", accept.minInChannels},   {"maxInChannels", accept.maxInChannels},
             {"minOutChannels", accept.minOutChannels}, {"maxOutChannels", accept.maxOutChannels},
             {"inResolutions", accept.inResolutions},   {"outResolutions", accept.outResolutions},
             {"lockedRateOnly", accept.lockedRateOnly}};
    if (!accept.rates.empty())
        acc["rates"] = accept.rates;
    if (!accept.configWords.empty())
        acc["configWords"] = accept.configWords;
    if (!accept.refuse.empty()) {
        json rules = json::array();
        for (const auto& rule : accept.refuse) {
            json jr;
            if (rule.fr)
                jr["fr"] = *rule.fr;
            if (rule.inCH)
                jr["inCH"] = *rule.inCH;
            if (rule.outCH)
                jr["outCH"] = *rule.outCH;
            if (rule.inRes)
                jr["inRes"] = *rule.inRes;
            if (rule.outRes)
                jr["outRes"] = *rule.outRes;
            if (rule.config)
                jr["config"] = *rule.config;
            jr["reason"] = rule.reason;
            rules.push_back(jr);
        }
        acc["refuse"] = rules;
    }
    j["accept"] = acc;
    j["periodFrames"] = periodFrames;
    j["ringFrames"] = ringFrames;
    j["captureStartPosition"] = captureStartPosition;
    j["renderStartPosition"] = renderStartPosition;
    if (!schedule.empty()) {
        json events = json::array();
        for (const auto& e : schedule) {
            json je{{"period", e.period}, {"event", eventName(e.kind)}};
            if (e.kind == EventKind::DigitalLock || e.kind == EventKind::SampleRate ||
                e.kind == EventKind::Sleep || (e.kind == EventKind::Unplug && e.value))
                je["value"] = e.value;
            events.push_back(je);
        }
        j["schedule"] = events;
    }
    return j;
}

void DeviceProfile::validate() const {
    if (configurations.empty())
        throw ProfileError("configurations", "no configuration, at least 1");
    if (configurations.size() > MME_DEVICE_MAX_CONFIGURATIONS)
        throw ProfileError("configurations",
                           std::to_string(configurations.size()) + " configurations, at most 4");
    for (size_t c = 0; c < configurations.size(); ++c) {
        const std::string cpath = "configurations[" + std::to_string(c) + "]";
        const auto& itfs = configurations[c].interfaces;
        if (itfs.size() > MME_DEVICE_MAX_INTERFACES)
            throw ProfileError(cpath + ".interfaces",
                               std::to_string(itfs.size()) + " interfaces, at most 16");
        for (size_t i = 0; i < itfs.size(); ++i) {
            const std::string ipath = cpath + ".interfaces[" + std::to_string(i) + "]";
            if (itfs[i].direction > 1)
                throw ProfileError(ipath + ".direction",
                                   std::to_string(itfs[i].direction) + " is not 0 or 1");
            const auto& alts = itfs[i].altSettings;
            if (alts.size() > MME_DEVICE_MAX_ALT_SETTINGS)
                throw ProfileError(ipath + ".altSettings",
                                   std::to_string(alts.size()) + " alternate settings, at most 16");
            for (size_t a = 0; a < alts.size(); ++a)
                validateAlt(alts[a], ipath + ".altSettings[" + std::to_string(a) + "]");
        }
    }
    validateConfig(hardware, "hardware");
    if (digitalLockHz != 0 && (digitalLockHz < kMinRate || digitalLockHz > kMaxRate))
        throw ProfileError("digitalLockHz", std::to_string(digitalLockHz) +
                                                " Hz is out of range 1000..768000 (or 0)");
    if (accept.minInChannels > accept.maxInChannels)
        throw ProfileError("accept.minInChannels", "above accept.maxInChannels");
    if (accept.minOutChannels > accept.maxOutChannels)
        throw ProfileError("accept.minOutChannels", "above accept.maxOutChannels");
    for (size_t i = 0; i < accept.inResolutions.size(); ++i)
        if (!validBits(accept.inResolutions[i]))
            throw ProfileError("accept.inResolutions[" + std::to_string(i) + "]",
                               std::to_string(accept.inResolutions[i]) +
                                   " is not one of 16, 20, 24, 32");
    for (size_t i = 0; i < accept.outResolutions.size(); ++i)
        if (!validBits(accept.outResolutions[i]))
            throw ProfileError("accept.outResolutions[" + std::to_string(i) + "]",
                               std::to_string(accept.outResolutions[i]) +
                                   " is not one of 16, 20, 24, 32");
    for (size_t i = 0; i < accept.rates.size(); ++i)
        if (accept.rates[i] < kMinRate || accept.rates[i] > kMaxRate)
            throw ProfileError("accept.rates[" + std::to_string(i) + "]",
                               std::to_string(accept.rates[i]) +
                                   " Hz is out of range 1000..768000");
    std::string why;
    if (!accepts(hardware, 0, &why))
        throw ProfileError("hardware",
                           "the accept rules refuse the starting configuration: " + why);

    if (periodFrames < 1 || periodFrames > kMaxPeriod)
        throw ProfileError("periodFrames",
                           std::to_string(periodFrames) + " is out of range 1..4096");
    const uint32_t widest = std::max<uint32_t>(
        {1u, hardware.inCH, hardware.outCH, accept.maxInChannels, accept.maxOutChannels});
    const uint32_t needed = minimumRingFrames(periodFrames);
    if (ringFrames != 0) {
        if (uint64_t(ringFrames) * widest > nMaxSamples)
            throw ProfileError("ringFrames", std::to_string(ringFrames) + " frames of " +
                                                 std::to_string(widest) +
                                                 " channels exceed the ring's 131072 samples");
        if (ringFrames < needed)
            throw ProfileError("ringFrames", std::to_string(ringFrames) + " frames, at least " +
                                                 std::to_string(needed) + " for a period of " +
                                                 std::to_string(periodFrames));
    } else if (nMaxSamples / widest / periodFrames * periodFrames < needed) {
        throw ProfileError("periodFrames",
                           "a ring of " + std::to_string(widest) + " channels holds fewer than " +
                               std::to_string(needed) + " frames with a period of " +
                               std::to_string(periodFrames));
    }
    for (size_t i = 0; i < schedule.size(); ++i) {
        const auto& e = schedule[i];
        if (e.kind == EventKind::SampleRate && (e.value < kMinRate || e.value > kMaxRate))
            throw ProfileError("schedule[" + std::to_string(i) + "].value",
                               std::to_string(e.value) + " Hz is out of range 1000..768000");
        if (e.kind == EventKind::DigitalLock && e.value != 0 &&
            (e.value < kMinRate || e.value > kMaxRate))
            throw ProfileError("schedule[" + std::to_string(i) + "].value",
                               std::to_string(e.value) + " Hz is out of range 1000..768000 (or 0)");
        if ((e.kind == EventKind::Sleep && (e.value < 1 || e.value > kMaxLifeMs)) ||
            (e.kind == EventKind::Unplug && e.value > kMaxLifeMs))
            throw ProfileError("schedule[" + std::to_string(i) + "].value",
                               std::to_string(e.value) + " ms is out of range " +
                                   (e.kind == EventKind::Sleep ? "1" : "0") + ".." +
                                   std::to_string(kMaxLifeMs));
        if (i > 0 && e.period < schedule[i - 1].period)
            throw ProfileError("schedule[" + std::to_string(i) + "].period",
                               "periods must not go backwards (" + std::to_string(e.period) +
                                   " after " + std::to_string(schedule[i - 1].period) + ")");
    }
}

void DeviceProfile::fillDeviceInfo(MMEDeviceInfo& info) const {
    std::memset(&info, 0, sizeof(info));
    info.vendorId = vendorId;
    info.productId = productId;
    info.thirdWord = thirdWord;
    const size_t nc = std::min<size_t>(configurations.size(), MME_DEVICE_MAX_CONFIGURATIONS);
    info.numConfigurations = UCHAR(nc);
    for (size_t c = 0; c < nc; ++c) {
        MMEDeviceConfiguration& rc = info.configurations[c];
        const auto& itfs = configurations[c].interfaces;
        const size_t ni = std::min<size_t>(itfs.size(), MME_DEVICE_MAX_INTERFACES);
        rc.numInterfaces = UCHAR(ni);
        for (size_t i = 0; i < ni; ++i) {
            MMEDeviceInterface& ri = rc.interfaces[i];
            ri.direction = itfs[i].direction;
            const auto& alts = itfs[i].altSettings;
            const size_t na = std::min<size_t>(alts.size(), MME_DEVICE_MAX_ALT_SETTINGS);
            ri.numAltSettings = UCHAR(na);
            for (size_t a = 0; a < na; ++a) {
                MMEDeviceAltSetting& ra = ri.altSettings[a];
                const AltSettingDesc& d = alts[a];
                ra.flag = d.flag;
                ra.bitsPerSample = d.bits;
                ra.channels = d.channels;
                ra.rateKind = d.continuous ? 1 : MME_RATES_DISCRETE;
                if (d.continuous) {
                    ra.lowestRate = d.minRate;
                    ra.highestRate = d.maxRate;
                } else {
                    const size_t nr = std::min<size_t>(d.rates.size(), MME_DEVICE_MAX_RATES);
                    ra.numRates = UCHAR(nr);
                    for (size_t k = 0; k < nr; ++k)
                        ra.rates[k] = d.rates[k];
                    if (nr) {
                        ra.lowestRate = *std::min_element(d.rates.begin(), d.rates.begin() + nr);
                        ra.highestRate = *std::max_element(d.rates.begin(), d.rates.begin() + nr);
                    }
                }
                const size_t ne = std::min<size_t>(d.endpoints.size(), MME_DEVICE_MAX_ENDPOINTS);
                ra.numEndpoints = UCHAR(ne);
                for (size_t e = 0; e < ne; ++e) {
                    ra.endpoints[e].maxPacketSize = d.endpoints[e].maxPacketSize;
                    ra.endpoints[e].address = d.endpoints[e].address;
                }
            }
        }
    }
}

bool DeviceProfile::accepts(const ChannelConfig& w, uint32_t lockHz, std::string* reason) const {
    auto refuse = [&](const std::string& why) {
        if (reason)
            *reason = why + " (" + describe(w) + ")";
        return false;
    };
    for (const auto& rule : accept.refuse)
        if (rule.matches(w))
            return refuse(rule.reason);
    if (!accept.rates.empty() && !contains(accept.rates, w.fr))
        return refuse("rate " + std::to_string(w.fr) + " Hz not supported");
    if (w.fr < kMinRate || w.fr > kMaxRate)
        return refuse("rate " + std::to_string(w.fr) + " Hz out of range");
    if (accept.lockedRateOnly && lockHz != 0 && w.fr != lockHz)
        return refuse("digital input locked to " + std::to_string(lockHz) + " Hz");
    if (w.inCH < accept.minInChannels || w.inCH > accept.maxInChannels)
        return refuse(std::to_string(w.inCH) + " input channels outside " +
                      std::to_string(accept.minInChannels) + ".." +
                      std::to_string(accept.maxInChannels));
    if (w.outCH < accept.minOutChannels || w.outCH > accept.maxOutChannels)
        return refuse(std::to_string(w.outCH) + " output channels outside " +
                      std::to_string(accept.minOutChannels) + ".." +
                      std::to_string(accept.maxOutChannels));
    if (!contains(accept.inResolutions, w.inRes))
        return refuse("input resolution " + std::to_string(w.inRes) + " bits not supported");
    if (!contains(accept.outResolutions, w.outRes))
        return refuse("output resolution " + std::to_string(w.outRes) + " bits not supported");
    if (!accept.configWords.empty() && !contains(accept.configWords, w.config))
        return refuse("configuration word " + std::to_string(w.config) + " not supported");
    return true;
}

uint32_t DeviceProfile::ringFramesFor(uint32_t channels) const {
    if (channels < 1)
        channels = 1;
    if (ringFrames != 0)
        return ringFrames;
    const uint32_t fit = nMaxSamples / channels;
    return fit / periodFrames * periodFrames;
}

RawDeviceInfo::RawDeviceInfo() : mInfo(new MMEDeviceInfo()) {}

RawDeviceInfo::RawDeviceInfo(const DeviceProfile& profile) : RawDeviceInfo() {
    profile.fillDeviceInfo(*mInfo);
}

RawDeviceInfo& RawDeviceInfo::ids(uint16_t vendor, uint16_t product, uint16_t third) {
    mInfo->vendorId = vendor;
    mInfo->productId = product;
    mInfo->thirdWord = third;
    return *this;
}

RawDeviceInfo& RawDeviceInfo::numConfigurations(uint8_t n) {
    mInfo->numConfigurations = n;
    return *this;
}

RawDeviceInfo& RawDeviceInfo::numInterfaces(unsigned cfg, uint8_t n) {
    mInfo->configurations[cfg % MME_DEVICE_MAX_CONFIGURATIONS].numInterfaces = n;
    return *this;
}

RawDeviceInfo& RawDeviceInfo::numAltSettings(unsigned cfg, unsigned itf, uint8_t n) {
    mInfo->configurations[cfg % MME_DEVICE_MAX_CONFIGURATIONS]
        .interfaces[itf % MME_DEVICE_MAX_INTERFACES]
        .numAltSettings = n;
    return *this;
}

MMEDeviceAltSetting& RawDeviceInfo::alt(unsigned cfg, unsigned itf, unsigned a) {
    return mInfo->configurations[cfg % MME_DEVICE_MAX_CONFIGURATIONS]
        .interfaces[itf % MME_DEVICE_MAX_INTERFACES]
        .altSettings[a % MME_DEVICE_MAX_ALT_SETTINGS];
}

RawDeviceInfo& RawDeviceInfo::numRates(unsigned cfg, unsigned itf, unsigned a, uint8_t n) {
    alt(cfg, itf, a).numRates = n;
    return *this;
}

RawDeviceInfo& RawDeviceInfo::numEndpoints(unsigned cfg, unsigned itf, unsigned a, uint8_t n) {
    alt(cfg, itf, a).numEndpoints = n;
    return *this;
}

} // namespace usbsim
