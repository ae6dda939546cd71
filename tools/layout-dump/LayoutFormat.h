// The record format of the layout table (LayoutTable.cpp) and its decoder.
// The table is built at compile time from the platform declarations, once
// against the host's and once against the DDK's; each build's numbers are
// then printed by the same decoder (layout_dump.cpp), reading either the
// running program's own table or the one inside a Windows PE image, so the
// two outputs can be compared line by line.
//
// A record is 160 bytes: a NUL-terminated name, a kind, and two 16-byte
// values whose meaning depends on the kind. Slot records hold two Itanium-ABI
// pointers to virtual member functions (g++ on both targets stores
// 1 + vtable byte offset and an adjustment of 0), GUID records a pointer to
// the GUID, all others a plain number. Little-endian, as both targets are.
#pragma once

#include <stdint.h>

constexpr uint32_t MME_LAYOUT_NAME_SIZE = 96;
constexpr uint32_t MME_LAYOUT_RECORD_SIZE = 160;
constexpr uint32_t MME_LAYOUT_VALUE_SIZE = 16;
#define MME_LAYOUT_MAGIC "MME layout v1"
// Section that holds the table in both builds, found by name in a PE image.
#define MME_LAYOUT_SECTION ".mmelay"

enum MMELayoutKind : uint32_t {
    kLayoutSize = 1,   // value: sizeof
    kLayoutAlign = 2,  // value: alignof
    kLayoutOffset = 3, // value: offsetof
    kLayoutValue = 4,  // value: a constant, as a 64-bit pattern
    kLayoutSlot = 5,   // first: the interface as the driver sees it; second: the DDK's
                       // own declaration where the platform replaces it (else the same)
    kLayoutGuid = 6,   // first: address of the GUID
    kLayoutCall = 7,   // first: the calling convention (MMELayoutCall)
};

enum MMELayoutCall : uint64_t {
    kCallWindows = 1, // Windows x64
    kCallSystemV = 2, // System V AMD64 (the Linux default)
};

struct MMELayoutHeader {
    char magic[16];
    uint64_t recordCount;
    uint64_t recordSize;
};

// The fixed part of every record; the two values follow at offset 104.
struct MMELayoutRecordHead {
    char name[MME_LAYOUT_NAME_SIZE];
    uint32_t kind;
    uint32_t reserved;
};

constexpr uint32_t MME_LAYOUT_FIRST_OFFSET = sizeof(MMELayoutRecordHead);
constexpr uint32_t MME_LAYOUT_SECOND_OFFSET = MME_LAYOUT_FIRST_OFFSET + MME_LAYOUT_VALUE_SIZE;
static_assert(MME_LAYOUT_SECOND_OFFSET + MME_LAYOUT_VALUE_SIZE <= MME_LAYOUT_RECORD_SIZE,
              "record size");

// The table as the table translation unit defines it (in MME_LAYOUT_SECTION).
extern "C" const MMELayoutHeader* mmeLayoutTable();
