// Records shared with the USB driver: the link record MMEAdapterInfo, the
// six-field ChannelConfig, the USB driver's HardwareSettings and its
// device-info record. Fixed x86-64 byte layouts (a wire format between two
// drivers), checked below in both builds.
#pragma once

#include "../platform/platform.h"

struct AudioSM;
struct MMEAdapterInfo;

// Call codes to the USB driver (I/O control code of the request).
enum : ULONG {
    USBCall_Register = 0,
    USBCall_Unregister = 1,
    USBCall_AdapterStarted = 2,
    USBCall_Attach = 3,
    USBCall_ChangeConfig = 4,
    USBCall_TimedStart = 5,
};

// Notification codes from the USB driver.
enum : ULONG {
    MMENotify_OnMMEAttached = 0,
    MMENotify_OnMMEDetached = 1,
    MMENotify_PreventFurtherDriverCalls = 2,
    MMENotify_OnAsioAttached = 3,
    MMENotify_OnAsioDetached = 4,
    MMENotify_OnTimedStartCallback = 5,
};

// State questions from the USB driver.
enum : ULONG {
    USBStc_SampleRate = 1,
    USBStc_IsMMEAttached = 2,
    USBStc_ConfigChanged = 4,
};

constexpr ULONG MME_INTERFACE_VERSION = 2095900; // v2.9.59.0

// The USB driver calls these in the kernel's convention, as any kernel
// routine it is given.
typedef void(NTAPI* MMENotifyCallback)(PVOID context, ULONG code, ULONGLONG value);
typedef LONG(NTAPI* MMEStcCallback)(PVOID context, ULONG code, ULONG value);
typedef void(NTAPI* MMEExchangeDataCallback)(PVOID context, MMEAdapterInfo* info);

struct ChannelConfig {
    ULONG fr;     // sample rate, Hz
    ULONG inCH;   // capture channels
    ULONG outCH;  // render channels
    ULONG inRes;  // capture resolution, bits
    ULONG outRes; // render resolution, bits
    ULONG config; // the USB driver's configuration word, opaque here
};

inline bool operator==(const ChannelConfig& a, const ChannelConfig& b) {
    return memcmp(&a, &b, sizeof(ChannelConfig)) == 0;
}
inline bool operator!=(const ChannelConfig& a, const ChannelConfig& b) {
    return !(a == b);
}

struct HardwareSettings {
    UCHAR reserved0[24];
    ChannelConfig current; // the configuration the hardware runs now
    ULONG reserved1;
    ULONG mDigitalLockFrequency; // Hz; 0 = no digital input or not locked
};

// ---- Device-info record ----

constexpr ULONG MME_DEVICE_MAX_CONFIGURATIONS = 4;
constexpr ULONG MME_DEVICE_MAX_INTERFACES = 16;
constexpr ULONG MME_DEVICE_MAX_ALT_SETTINGS = 16;
constexpr ULONG MME_DEVICE_MAX_RATES = 16;
constexpr ULONG MME_DEVICE_MAX_ENDPOINTS = 4;

struct MMEDeviceEndpoint {
    USHORT maxPacketSize; // below 4: not usable
    UCHAR address;        // bit 7 set = IN (device to host)
    UCHAR reserved;
};

enum : UCHAR { MME_RATES_DISCRETE = 0 }; // any other rate kind is a continuous range

struct MMEDeviceAltSetting {
    UCHAR flag; // compared with 1 by the format search
    UCHAR reserved0;
    UCHAR numEndpoints;
    UCHAR reserved1;
    UCHAR bitsPerSample;
    UCHAR channels;
    UCHAR rateKind;
    UCHAR numRates;
    ULONG lowestRate;
    ULONG highestRate;
    ULONG rates[MME_DEVICE_MAX_RATES];
    MMEDeviceEndpoint endpoints[MME_DEVICE_MAX_ENDPOINTS];
};

enum : UCHAR { MME_DIRECTION_OUTPUT = 0, MME_DIRECTION_INPUT = 1 };

struct MMEDeviceInterface {
    UCHAR direction; // 1 = input (device to host), 0 = output
    UCHAR reserved0;
    UCHAR numAltSettings;
    UCHAR reserved1;
    MMEDeviceAltSetting altSettings[MME_DEVICE_MAX_ALT_SETTINGS];
};

struct MMEDeviceConfiguration {
    USHORT reserved0;
    UCHAR numInterfaces;
    UCHAR reserved1;
    MMEDeviceInterface interfaces[MME_DEVICE_MAX_INTERFACES];
};

struct MMEDeviceInfo {
    USHORT vendorId;
    USHORT productId;
    USHORT thirdWord; // carried with the ids, never compared
    UCHAR numConfigurations;
    UCHAR reserved;
    MMEDeviceConfiguration configurations[MME_DEVICE_MAX_CONFIGURATIONS];
};

// ---- Link record ----

struct MMEAdapterInfo {
    PVOID mpContext;
    MMENotifyCallback mpfnNotify;
    MMEStcCallback mpfnStcCallback;
    MMEExchangeDataCallback mpfnExchangeData;
    ULONG mInterfaceVersion;
    ULONG reserved0;
    MMEDeviceInfo* mpAPIDeviceInfo;
    UCHAR* mpCaptureRing; // the capture AudioSM begins 8 bytes after this address
    UCHAR mbAttached;
    UCHAR reserved1[7];
    AudioSM* mpSharedMemory; // the render ring
    HardwareSettings* mpSettings;
    ULONG mVendorID;
    ULONG mProductID;
    ChannelConfig mcAttachChannels;
};

constexpr ULONG MME_CAPTURE_RING_PREFIX = 8;

MME_CHECK_SIZE(ChannelConfig, 24);
MME_CHECK_OFFSET(ChannelConfig, config, 0x14);
MME_CHECK_OFFSET(HardwareSettings, current, 0x18);
MME_CHECK_OFFSET(HardwareSettings, mDigitalLockFrequency, 0x34);
MME_CHECK_SIZE(HardwareSettings, 0x38);
MME_CHECK_SIZE(MMEDeviceEndpoint, 4);
MME_CHECK_OFFSET(MMEDeviceEndpoint, address, 2);
MME_CHECK_SIZE(MMEDeviceAltSetting, 96);
MME_CHECK_OFFSET(MMEDeviceAltSetting, numEndpoints, 0x02);
MME_CHECK_OFFSET(MMEDeviceAltSetting, bitsPerSample, 0x04);
MME_CHECK_OFFSET(MMEDeviceAltSetting, channels, 0x05);
MME_CHECK_OFFSET(MMEDeviceAltSetting, rateKind, 0x06);
MME_CHECK_OFFSET(MMEDeviceAltSetting, numRates, 0x07);
MME_CHECK_OFFSET(MMEDeviceAltSetting, lowestRate, 0x08);
MME_CHECK_OFFSET(MMEDeviceAltSetting, highestRate, 0x0C);
MME_CHECK_OFFSET(MMEDeviceAltSetting, rates, 0x10);
MME_CHECK_OFFSET(MMEDeviceAltSetting, endpoints, 0x50);
MME_CHECK_SIZE(MMEDeviceInterface, 1540);
MME_CHECK_OFFSET(MMEDeviceInterface, numAltSettings, 0x02);
MME_CHECK_OFFSET(MMEDeviceInterface, altSettings, 0x04);
MME_CHECK_SIZE(MMEDeviceConfiguration, 24644);
MME_CHECK_OFFSET(MMEDeviceConfiguration, numInterfaces, 0x02);
MME_CHECK_OFFSET(MMEDeviceConfiguration, interfaces, 0x04);
MME_CHECK_OFFSET(MMEDeviceInfo, thirdWord, 0x04);
MME_CHECK_OFFSET(MMEDeviceInfo, numConfigurations, 0x06);
MME_CHECK_OFFSET(MMEDeviceInfo, configurations, 0x08);
MME_CHECK_SIZE(MMEAdapterInfo, 112);
MME_CHECK_OFFSET(MMEAdapterInfo, mpfnNotify, 0x08);
MME_CHECK_OFFSET(MMEAdapterInfo, mpfnStcCallback, 0x10);
MME_CHECK_OFFSET(MMEAdapterInfo, mpfnExchangeData, 0x18);
MME_CHECK_OFFSET(MMEAdapterInfo, mInterfaceVersion, 0x20);
MME_CHECK_OFFSET(MMEAdapterInfo, mpAPIDeviceInfo, 0x28);
MME_CHECK_OFFSET(MMEAdapterInfo, mpCaptureRing, 0x30);
MME_CHECK_OFFSET(MMEAdapterInfo, mbAttached, 0x38);
MME_CHECK_OFFSET(MMEAdapterInfo, mpSharedMemory, 0x40);
MME_CHECK_OFFSET(MMEAdapterInfo, mpSettings, 0x48);
MME_CHECK_OFFSET(MMEAdapterInfo, mVendorID, 0x50);
MME_CHECK_OFFSET(MMEAdapterInfo, mProductID, 0x54);
MME_CHECK_OFFSET(MMEAdapterInfo, mcAttachChannels, 0x58);
