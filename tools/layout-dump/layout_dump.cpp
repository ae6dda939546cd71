// layout-dump: prints the layout table (LayoutFormat.h) one line per record,
// e.g. "KSDATARANGE_AUDIO.MaximumChannels offset 64",
// "IDmaChannel::PhysicalAddress slot 11" or "DbgPrint convention windows-x64".
//
//   layout-dump              the table this program was built with
//   layout-dump --pe FILE    the table inside a PE32+ image (layout-dump.exe
//                            of the Windows build), read without running it
//
// Exit status 0 on success, 2 on a malformed table or image (with a message
// on stderr naming what is wrong), 1 on a usage error.
#include "LayoutFormat.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Reads bytes at an address the table holds (a GUID's address).
class AddressReader {
public:
    virtual ~AddressReader() = default;
    virtual bool read(uint64_t address, void* out, size_t size) const = 0;
};

class ProcessReader : public AddressReader {
public:
    bool read(uint64_t address, void* out, size_t size) const override {
        if (address == 0)
            return false;
        std::memcpy(out, reinterpret_cast<const void*>(static_cast<uintptr_t>(address)), size);
        return true;
    }
};

uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(le16(p)) | (uint32_t(le16(p + 2)) << 16);
}
uint64_t le64(const uint8_t* p) {
    return le32(p) | (uint64_t(le32(p + 4)) << 32);
}

struct Section {
    std::string name;
    uint32_t virtualAddress;
    uint32_t virtualSize;
    uint32_t rawOffset;
    uint32_t rawSize;
};

// A PE32+ image as a file: its preferred image base (the addresses stored in
// its data are relative to that, before any load-time relocation) and its
// sections.
class PeImage : public AddressReader {
public:
    bool load(const char* path, std::string& error) {
        FILE* f = std::fopen(path, "rb");
        if (!f) {
            error = std::string("cannot open ") + path;
            return false;
        }
        uint8_t chunk[65536];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
            mBytes.insert(mBytes.end(), chunk, chunk + n);
        std::fclose(f);
        return parse(error);
    }

    const Section* section(const char* name) const {
        for (const Section& s : mSections)
            if (s.name == name)
                return &s;
        return nullptr;
    }
    const uint8_t* bytes(const Section& s) const { return mBytes.data() + s.rawOffset; }
    size_t initializedSize(const Section& s) const {
        return s.virtualSize < s.rawSize ? s.virtualSize : s.rawSize;
    }

    bool read(uint64_t address, void* out, size_t size) const override {
        if (address < mImageBase)
            return false;
        uint64_t rva = address - mImageBase;
        for (const Section& s : mSections) {
            if (rva >= s.virtualAddress && rva - s.virtualAddress + size <= s.rawSize) {
                std::memcpy(out, mBytes.data() + s.rawOffset + (rva - s.virtualAddress), size);
                return true;
            }
        }
        return false;
    }

private:
    bool has(uint64_t offset, uint64_t size) const { return offset + size <= mBytes.size(); }

    bool parse(std::string& error) {
        if (!has(0, 0x40) || mBytes[0] != 'M' || mBytes[1] != 'Z') {
            error = "not a PE image (no MZ header)";
            return false;
        }
        uint32_t pe = le32(&mBytes[0x3C]);
        if (!has(pe, 24) || std::memcmp(&mBytes[pe], "PE\0\0", 4) != 0) {
            error = "not a PE image (no PE signature)";
            return false;
        }
        const uint8_t* coff = &mBytes[pe + 4];
        if (le16(coff) != 0x8664) {
            error = "not an x86-64 image";
            return false;
        }
        uint16_t sectionCount = le16(coff + 2);
        uint16_t optionalSize = le16(coff + 16);
        uint64_t optional = pe + 24;
        if (optionalSize < 32 || !has(optional, optionalSize) || le16(&mBytes[optional]) != 0x20B) {
            error = "not a PE32+ image";
            return false;
        }
        mImageBase = le64(&mBytes[optional + 24]);
        uint64_t table = optional + optionalSize;
        if (!has(table, uint64_t(sectionCount) * 40)) {
            error = "section table runs past the end of the file";
            return false;
        }
        for (uint16_t i = 0; i < sectionCount; ++i) {
            const uint8_t* h = &mBytes[table + i * 40u];
            Section s;
            s.name.assign(reinterpret_cast<const char*>(h),
                          strnlen(reinterpret_cast<const char*>(h), 8));
            s.virtualSize = le32(h + 8);
            s.virtualAddress = le32(h + 12);
            s.rawSize = le32(h + 16);
            s.rawOffset = le32(h + 20);
            if (!has(s.rawOffset, s.rawSize)) {
                error = "section " + s.name + " runs past the end of the file";
                return false;
            }
            mSections.push_back(s);
        }
        return true;
    }

    std::vector<uint8_t> mBytes;
    std::vector<Section> mSections;
    uint64_t mImageBase = 0;
};

// Prints the table at `table` (`available` bytes readable there).
bool printTable(const uint8_t* table, size_t available, const AddressReader& reader, FILE* out,
                std::string& error) {
    if (available < sizeof(MMELayoutHeader)) {
        error = "table shorter than its header";
        return false;
    }
    MMELayoutHeader header;
    std::memcpy(&header, table, sizeof header);
    if (std::strncmp(header.magic, MME_LAYOUT_MAGIC, sizeof header.magic) != 0) {
        error = "table magic is not \"" MME_LAYOUT_MAGIC "\"";
        return false;
    }
    if (header.recordSize != MME_LAYOUT_RECORD_SIZE) {
        error = "record size " + std::to_string(header.recordSize) + ", expected " +
                std::to_string(MME_LAYOUT_RECORD_SIZE);
        return false;
    }
    if (header.recordCount == 0 ||
        header.recordCount > (available - sizeof header) / MME_LAYOUT_RECORD_SIZE) {
        error = "record count " + std::to_string(header.recordCount) + " does not fit the table";
        return false;
    }
    for (uint64_t i = 0; i < header.recordCount; ++i) {
        const uint8_t* r = table + sizeof header + i * MME_LAYOUT_RECORD_SIZE;
        MMELayoutRecordHead head;
        std::memcpy(&head, r, sizeof head);
        if (strnlen(head.name, sizeof head.name) == sizeof head.name || head.name[0] == '\0') {
            error = "record " + std::to_string(i) + " has no name";
            return false;
        }
        const uint8_t* first = r + MME_LAYOUT_FIRST_OFFSET;
        const uint8_t* second = r + MME_LAYOUT_SECOND_OFFSET;
        switch (head.kind) {
        case kLayoutSize:
            std::fprintf(out, "%s size %" PRIu64 "\n", head.name, le64(first));
            break;
        case kLayoutAlign:
            std::fprintf(out, "%s alignment %" PRIu64 "\n", head.name, le64(first));
            break;
        case kLayoutOffset:
            std::fprintf(out, "%s offset %" PRIu64 "\n", head.name, le64(first));
            break;
        case kLayoutValue: {
            uint64_t v = le64(first);
            std::fprintf(out, "%s value %" PRId64 " (0x%" PRIX64 ")\n", head.name, int64_t(v), v);
            break;
        }
        case kLayoutSlot: {
            // Itanium ABI: a pointer to a virtual member function holds
            // 1 + the byte offset of its vtable entry, and this-adjustment 0.
            uint64_t ptr = le64(first), adj = le64(first + 8);
            uint64_t refPtr = le64(second), refAdj = le64(second + 8);
            if (!(ptr & 1) || adj != 0 || !(refPtr & 1) || refAdj != 0) {
                std::fprintf(out, "%s not a virtual operation of its interface\n", head.name);
                break;
            }
            uint64_t slot = (ptr - 1) / 8, refSlot = (refPtr - 1) / 8;
            if (slot == refSlot)
                std::fprintf(out, "%s slot %" PRIu64 "\n", head.name, slot);
            else
                std::fprintf(out, "%s slot %" PRIu64 " but the DDK declares slot %" PRIu64 "\n",
                             head.name, slot, refSlot);
            break;
        }
        case kLayoutCall: {
            uint64_t call = le64(first);
            const char* name = call == kCallWindows   ? "windows-x64"
                               : call == kCallSystemV ? "system-v"
                                                      : nullptr;
            if (!name) {
                error = "record " + std::string(head.name) + " has unknown convention " +
                        std::to_string(call);
                return false;
            }
            std::fprintf(out, "%s convention %s\n", head.name, name);
            break;
        }
        case kLayoutGuid: {
            uint8_t g[16];
            if (!reader.read(le64(first), g, sizeof g)) {
                error = std::string("GUID ") + head.name + " is not readable in the image";
                return false;
            }
            std::fprintf(out,
                         "%s guid {%08" PRIX32 "-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}\n",
                         head.name, le32(g), le16(g + 4), le16(g + 6), g[8], g[9], g[10], g[11],
                         g[12], g[13], g[14], g[15]);
            break;
        }
        default:
            error = "record " + std::string(head.name) + " has unknown kind " +
                    std::to_string(head.kind);
            return false;
        }
    }
    return true;
}

int usage(const char* program) {
    std::fprintf(stderr, "usage: %s [--pe IMAGE]\n", program);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    std::string error;
    bool ok;
    if (argc == 1) {
        const MMELayoutHeader* header = mmeLayoutTable();
        size_t size = sizeof *header + header->recordCount * header->recordSize;
        ok = printTable(reinterpret_cast<const uint8_t*>(header), size, ProcessReader(), stdout,
                        error);
    } else if (argc == 3 && std::strcmp(argv[1], "--pe") == 0) {
        PeImage image;
        ok = image.load(argv[2], error);
        if (ok) {
            const Section* s = image.section(MME_LAYOUT_SECTION);
            if (!s) {
                error = "no " MME_LAYOUT_SECTION " section";
                ok = false;
            } else {
                ok = printTable(image.bytes(*s), image.initializedSize(*s), image, stdout, error);
            }
        }
    } else {
        return usage(argv[0]);
    }
    if (!ok) {
        std::fprintf(stderr, "layout-dump: %s\n", error.c_str());
        return 2;
    }
    return std::fflush(stdout) == 0 ? 0 : 2;
}
