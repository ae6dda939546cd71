#include "PeHash.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace mkcat {
namespace {

uint16_t rd16(const uint8_t* p) {
    return uint16_t(p[0] | p[1] << 8);
}
uint32_t rd32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool fits(uint64_t offset, uint64_t length, uint64_t size) {
    return offset <= size && length <= size - offset;
}

using MdCtx = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

std::vector<uint8_t> finish(EVP_MD_CTX* ctx) {
    std::vector<uint8_t> out(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx, out.data(), &length);
    out.resize(length);
    return out;
}

} // namespace

bool isPeImage(const std::vector<uint8_t>& file) {
    if (file.size() < 64 || file[0] != 'M' || file[1] != 'Z')
        return false;
    const uint32_t pe = rd32(file.data() + 0x3c);
    return fits(pe, 4, file.size()) && std::memcmp(file.data() + pe, "PE\0\0", 4) == 0;
}

bool peImageDigest(const std::vector<uint8_t>& file, const EVP_MD* md, std::vector<uint8_t>* digest,
                   std::string* error) {
    const uint8_t* f = file.data();
    const uint64_t size = file.size();
    if (!isPeImage(file)) {
        *error = "not a PE image";
        return false;
    }
    const uint32_t pe = rd32(f + 0x3c);
    if (!fits(pe, 24, size)) {
        *error = "COFF header outside the file";
        return false;
    }
    const uint16_t sectionCount = rd16(f + pe + 6);
    const uint16_t optionalSize = rd16(f + pe + 20);
    const uint64_t opt = uint64_t(pe) + 24;
    if (!fits(opt, optionalSize, size) || optionalSize < 2) {
        *error = "optional header outside the file";
        return false;
    }
    // The data directories start at 96 (PE32) or 112 (PE32+); the
    // Certificate Table is entry 4.
    const uint16_t magic = rd16(f + opt);
    const uint64_t directories = magic == 0x20b ? 112 : magic == 0x10b ? 96 : 0;
    if (!directories || optionalSize < directories + 5 * 8 || rd32(f + opt + directories - 4) < 5) {
        *error = "no Certificate Table entry in the optional header";
        return false;
    }
    const uint64_t checksumAt = opt + 64;
    const uint64_t certEntryAt = opt + directories + 4 * 8;
    const uint32_t certOffset = rd32(f + certEntryAt);
    const uint32_t certSize = rd32(f + certEntryAt + 4);
    const uint32_t headersSize = rd32(f + opt + 60);
    const uint64_t sectionTable = opt + optionalSize;
    if (headersSize < certEntryAt + 8 || !fits(0, headersSize, size) ||
        !fits(sectionTable, uint64_t(sectionCount) * 40, size)) {
        *error = "headers larger than the file";
        return false;
    }
    // Attribute certificates sit at the end of the file, after every
    // section (PE format, "The Attribute Certificate Table").
    if (certSize &&
        (!fits(certOffset, certSize, size) || uint64_t(certOffset) + certSize != size)) {
        *error = "the certificate table is not at the end of the file";
        return false;
    }

    MdCtx ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(ctx.get(), md, nullptr);
    EVP_DigestUpdate(ctx.get(), f, checksumAt);
    EVP_DigestUpdate(ctx.get(), f + checksumAt + 4, certEntryAt - (checksumAt + 4));
    EVP_DigestUpdate(ctx.get(), f + certEntryAt + 8, headersSize - (certEntryAt + 8));

    struct Raw {
        uint32_t offset, size;
    };
    std::vector<Raw> sections;
    for (uint16_t i = 0; i < sectionCount; ++i) {
        const uint8_t* h = f + sectionTable + i * 40;
        const Raw raw{rd32(h + 20), rd32(h + 16)};
        if (raw.size == 0)
            continue;
        if (!fits(raw.offset, raw.size, size)) {
            *error = "section " + std::to_string(i) + " lies outside the file";
            return false;
        }
        sections.push_back(raw);
    }
    std::sort(sections.begin(), sections.end(),
              [](const Raw& a, const Raw& b) { return a.offset < b.offset; });
    uint64_t hashed = headersSize;
    for (const Raw& s : sections) {
        EVP_DigestUpdate(ctx.get(), f + s.offset, s.size);
        hashed += s.size;
    }
    const uint64_t end = size - certSize;
    if (end > hashed)
        EVP_DigestUpdate(ctx.get(), f + hashed, end - hashed);
    *digest = finish(ctx.get());
    return true;
}

std::vector<uint8_t> flatDigest(const std::vector<uint8_t>& file, const EVP_MD* md) {
    MdCtx ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(ctx.get(), md, nullptr);
    EVP_DigestUpdate(ctx.get(), file.data(), file.size());
    return finish(ctx.get());
}

} // namespace mkcat
