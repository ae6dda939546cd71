// PE32+ parsing, mapping, relocation and import binding. Field offsets are
// those of the PE/COFF format (IMAGE_DOS_HEADER, IMAGE_NT_HEADERS64,
// IMAGE_SECTION_HEADER, IMAGE_BASE_RELOCATION, IMAGE_IMPORT_DESCRIPTOR); all
// reads go through bounds-checked helpers because the bytes are untrusted.
#include "PeImage.h"

#include "ImageRegistry.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace hostimg {
namespace {

constexpr uint16_t kMachineAmd64 = 0x8664;
constexpr uint16_t kMagicPe32Plus = 0x20b;
constexpr uint16_t kSubsystemNative = 1;
constexpr uint16_t kCharExecutable = 0x0002;
constexpr uint16_t kCharDll = 0x2000;
constexpr uint32_t kScnUninitialized = 0x00000080;
constexpr int kDirImport = 1;
constexpr int kDirBaseReloc = 5;
constexpr uint32_t kMaxImage = 64u << 20; // no driver comes near; bounds a fuzzed mmap
constexpr uint32_t kPage = 4096;

uint16_t rd16(const uint8_t* p) {
    return uint16_t(p[0] | p[1] << 8);
}
uint32_t rd32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint64_t rd64(const uint8_t* p) {
    return uint64_t(rd32(p)) | uint64_t(rd32(p + 4)) << 32;
}

bool fits(uint64_t offset, uint64_t length, uint64_t size) {
    return offset <= size && length <= size - offset;
}

bool powerOfTwo(uint32_t v) {
    return v && !(v & (v - 1));
}

std::string hex(uint64_t v) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", (unsigned long long)v);
    return text;
}

bool fail(std::string* error, const std::string& text) {
    if (error)
        *error = text;
    return false;
}

// A NUL-terminated name inside the image at rva (at most 255 characters).
bool nameAt(const uint8_t* image, uint32_t size, uint32_t rva, std::string* name) {
    if (rva == 0 || rva >= size)
        return false;
    const uint8_t* p = image + rva;
    const size_t limit = std::min<size_t>(256, size - rva);
    const void* end = std::memchr(p, 0, limit);
    if (!end || end == p)
        return false;
    name->assign(reinterpret_cast<const char*>(p), static_cast<const uint8_t*>(end) - p);
    return true;
}

} // namespace

bool parseHeaders(const uint8_t* file, size_t size, Layout* layout, std::string* error) {
    *layout = Layout{};
    if (size < 64 || file[0] != 'M' || file[1] != 'Z')
        return fail(error, "not a PE image: no MZ header");
    const uint32_t pe = rd32(file + 0x3c);
    if (!fits(pe, 24, size) || std::memcmp(file + pe, "PE\0\0", 4) != 0)
        return fail(error, "not a PE image: no PE signature at " + hex(pe));
    const uint8_t* coff = file + pe + 4;
    const uint16_t machine = rd16(coff);
    if (machine != kMachineAmd64)
        return fail(error, "machine " + hex(machine) + " is not x86-64 (0x8664)");
    const uint16_t sectionCount = rd16(coff + 2);
    const uint16_t optionalSize = rd16(coff + 16);
    const uint16_t characteristics = rd16(coff + 18);
    if (!(characteristics & kCharExecutable))
        return fail(error, "not an executable image (object file or failed link)");
    if (characteristics & kCharDll)
        return fail(error, "a DLL, not a driver image");

    const uint64_t optOffset = uint64_t(pe) + 24;
    if (optionalSize < 112 || !fits(optOffset, optionalSize, size))
        return fail(error, "optional header of " + std::to_string(optionalSize) +
                               " bytes does not fit the file");
    const uint8_t* opt = file + optOffset;
    if (rd16(opt) != kMagicPe32Plus)
        return fail(error, "optional header magic " + hex(rd16(opt)) + " is not PE32+ (0x20b)");
    layout->entryRva = rd32(opt + 16);
    layout->imageBase = rd64(opt + 24);
    layout->sectionAlignment = rd32(opt + 32);
    const uint32_t fileAlignment = rd32(opt + 36);
    layout->sizeOfImage = rd32(opt + 56);
    layout->sizeOfHeaders = rd32(opt + 60);
    const uint16_t subsystem = rd16(opt + 68);
    const uint32_t directoryCount = rd32(opt + 108);
    if (subsystem != kSubsystemNative)
        return fail(error, "subsystem " + std::to_string(subsystem) + " is not native (1)");
    // A kernel image's sections start on pages here so each gets its own
    // protection; the format itself allows file alignments 512..64K.
    if (!powerOfTwo(fileAlignment) || fileAlignment < 512 || fileAlignment > 65536)
        return fail(error, "file alignment " + hex(fileAlignment) +
                               " is not a power of two in 0x200..0x10000");
    if (!powerOfTwo(layout->sectionAlignment) || layout->sectionAlignment < kPage)
        return fail(error, "section alignment " + hex(layout->sectionAlignment) +
                               " is not a power of two of at least a page");
    if (layout->sizeOfImage == 0 || layout->sizeOfImage > kMaxImage ||
        layout->sizeOfImage % layout->sectionAlignment)
        return fail(error, "size of image " + hex(layout->sizeOfImage) +
                               " is not a whole number of sections up to 64 MB");
    if (layout->sizeOfHeaders == 0 || layout->sizeOfHeaders > size ||
        layout->sizeOfHeaders > layout->sizeOfImage)
        return fail(error, "size of headers " + hex(layout->sizeOfHeaders) +
                               " lies outside the file or the image");
    if (directoryCount > 16 || 112 + uint64_t(directoryCount) * 8 > optionalSize)
        return fail(error, std::to_string(directoryCount) +
                               " data directories do not fit the optional header");
    auto directory = [&](int index) {
        Directory d;
        if (index < int(directoryCount)) {
            d.rva = rd32(opt + 112 + index * 8);
            d.size = rd32(opt + 112 + index * 8 + 4);
        }
        return d;
    };
    layout->imports = directory(kDirImport);
    layout->relocations = directory(kDirBaseReloc);

    const uint64_t tableOffset = optOffset + optionalSize;
    if (sectionCount == 0 || sectionCount > 96)
        return fail(error, std::to_string(sectionCount) + " sections (1..96 allowed)");
    if (!fits(tableOffset, uint64_t(sectionCount) * 40, layout->sizeOfHeaders))
        return fail(error, "section table lies outside the headers");
    uint64_t nextRva = layout->sizeOfHeaders;
    for (uint16_t i = 0; i < sectionCount; ++i) {
        const uint8_t* h = file + tableOffset + i * 40;
        Section s;
        const void* nul = std::memchr(h, 0, 8);
        s.name.assign(reinterpret_cast<const char*>(h),
                      nul ? static_cast<const uint8_t*>(nul) - h : 8);
        s.virtualSize = rd32(h + 8);
        s.rva = rd32(h + 12);
        s.rawSize = rd32(h + 16);
        s.rawOffset = rd32(h + 20);
        s.characteristics = rd32(h + 36);
        if (s.characteristics & kScnUninitialized)
            s.rawSize = 0;
        if (s.rawSize == 0) // nothing comes from the file, wherever the offset points
            s.rawOffset = 0;
        const std::string which = "section " + std::to_string(i) + " (" + s.name + ")";
        if (s.virtualSize == 0)
            s.virtualSize = s.rawSize;
        if (s.rva % layout->sectionAlignment)
            return fail(error, which + " at " + hex(s.rva) + " is not section-aligned");
        if (s.rva < nextRva)
            return fail(error, which + " at " + hex(s.rva) +
                                   " overlaps the headers or the section before it");
        if (!fits(s.rva, s.virtualSize, layout->sizeOfImage))
            return fail(error, which + " lies outside the image");
        if (s.rawSize) {
            if (s.rawOffset % fileAlignment)
                return fail(error, which + " data at " + hex(s.rawOffset) + " is not file-aligned");
            if (!fits(s.rawOffset, s.rawSize, size))
                return fail(error, which + " data (" + hex(s.rawSize) + " bytes at " +
                                       hex(s.rawOffset) + ") lies outside the file of " +
                                       hex(size) + " bytes");
        }
        nextRva = uint64_t(s.rva) + s.virtualSize;
        layout->sections.push_back(s);
    }

    const Section* entrySection = nullptr;
    for (const Section& s : layout->sections)
        if (layout->entryRva >= s.rva && layout->entryRva - s.rva < s.virtualSize)
            entrySection = &s;
    if (!entrySection || !entrySection->executable())
        return fail(error, "entry point " + hex(layout->entryRva) + " is not in a code section");
    auto inImage = [&](const Directory& d) { return fits(d.rva, d.size, layout->sizeOfImage); };
    if (!inImage(layout->imports))
        return fail(error, "import directory lies outside the image");
    if (!inImage(layout->relocations))
        return fail(error, "relocation directory lies outside the image");
    return true;
}

void mapSections(const uint8_t* file, const Layout& layout, uint8_t* image) {
    std::memcpy(image, file, layout.sizeOfHeaders);
    for (const Section& s : layout.sections)
        std::memcpy(image + s.rva, file + s.rawOffset, std::min(s.rawSize, s.virtualSize));
}

bool applyRelocations(uint8_t* image, const Layout& layout, uint64_t delta, std::string* error) {
    const uint32_t end = layout.relocations.rva + layout.relocations.size;
    uint32_t at = layout.relocations.rva;
    while (at < end) {
        if (end - at < 8)
            return fail(error, "relocation block header at " + hex(at) + " is cut short");
        const uint32_t page = rd32(image + at);
        const uint32_t blockSize = rd32(image + at + 4);
        if (blockSize < 8 || blockSize % 2 || blockSize > end - at)
            return fail(error,
                        "relocation block at " + hex(at) + " has a bad size " + hex(blockSize));
        for (uint32_t e = at + 8; e + 2 <= at + blockSize; e += 2) {
            const uint16_t entry = rd16(image + e);
            const unsigned type = entry >> 12;
            const uint64_t target = uint64_t(page) + (entry & 0xfff);
            if (type == 0) // IMAGE_REL_BASED_ABSOLUTE: padding
                continue;
            if (type != 10) // IMAGE_REL_BASED_DIR64, the only one x64 images use
                return fail(error, "relocation type " + std::to_string(type) + " at " +
                                       hex(target) + " is not supported");
            if (!fits(target, 8, layout.sizeOfImage))
                return fail(error, "relocation target " + hex(target) + " lies outside the image");
            uint8_t* p = image + target;
            const uint64_t v = rd64(p) + delta;
            std::memcpy(p, &v, 8);
        }
        at += blockSize;
    }
    return true;
}

bool bindImports(uint8_t* image, const Layout& layout, const Resolver& resolve,
                 std::vector<Import>* bound, std::string* error) {
    const uint32_t size = layout.sizeOfImage;
    if (layout.imports.size == 0)
        return true;
    // Slots already bound: a table that reuses one (or reads its names from
    // one) would undo a binding; the Windows loader has no such images.
    std::vector<uint64_t> written;
    auto overlapsWritten = [&](uint64_t at) {
        for (uint64_t w : written)
            if (at < w + 8 && w < at + 8)
                return true;
        return false;
    };
    for (uint64_t d = layout.imports.rva;; d += 20) {
        if (!fits(d, 20, size))
            return fail(error, "import directory runs off the image without its end marker");
        const uint8_t* desc = image + d;
        const uint32_t lookupRva = rd32(desc);
        const uint32_t nameRva = rd32(desc + 12);
        const uint32_t slotsRva = rd32(desc + 16);
        if (nameRva == 0 && slotsRva == 0)
            return true;
        std::string dll;
        if (!nameAt(image, size, nameRva, &dll))
            return fail(error, "import descriptor at " + hex(d) + " names no DLL inside the image");
        if (slotsRva == 0)
            return fail(error, "imports from " + dll + " have no address table");
        const uint32_t namesRva = lookupRva ? lookupRva : slotsRva;
        for (uint64_t i = 0;; ++i) {
            const uint64_t lookupAt = namesRva + i * 8, slotAt = slotsRva + i * 8;
            if (!fits(lookupAt, 8, size) || !fits(slotAt, 8, size))
                return fail(error, "import table of " + dll + " runs off the image");
            if (overlapsWritten(slotAt) || overlapsWritten(lookupAt))
                return fail(error, "import table of " + dll + " overlaps a slot already bound");
            const uint64_t thunk = rd64(image + lookupAt);
            if (thunk == 0)
                break;
            if (thunk >> 63)
                return fail(error, "import by ordinal " + std::to_string(thunk & 0xffff) +
                                       " from " + dll + " is not supported");
            std::string name;
            if (thunk > size - 2 || !nameAt(image, size, uint32_t(thunk) + 2, &name))
                return fail(error, "import " + std::to_string(i) + " from " + dll +
                                       " has no name inside the image");
            void* address = resolve ? resolve(dll, name) : nullptr;
            if (!address)
                return fail(error, "import " + dll + "!" + name + " is not provided by the host");
            const uint64_t v = reinterpret_cast<uintptr_t>(address);
            std::memcpy(image + slotAt, &v, 8);
            written.push_back(slotAt);
            if (bound)
                bound->push_back(Import{dll, name, uint32_t(slotAt)});
        }
    }
}

std::unique_ptr<LoadedImage> LoadedImage::loadFile(const std::string& path, const Resolver& resolve,
                                                   std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fail(error, path + ": cannot open");
        return nullptr;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    std::string reason;
    auto image = load(bytes, resolve, &reason);
    if (!image)
        fail(error, path + ": " + reason);
    return image;
}

std::unique_ptr<LoadedImage> LoadedImage::load(const std::vector<uint8_t>& file,
                                               const Resolver& resolve, std::string* error) {
    std::unique_ptr<LoadedImage> image(new LoadedImage);
    if (!parseHeaders(file.data(), file.size(), &image->mLayout, error))
        return nullptr;
    const Layout& layout = image->mLayout;
    void* mem = mmap(nullptr, layout.sizeOfImage, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        fail(error, "cannot map " + std::to_string(layout.sizeOfImage) + " bytes");
        return nullptr;
    }
    image->mBase = static_cast<uint8_t*>(mem);
    image->mMapped = layout.sizeOfImage;
    mapSections(file.data(), layout, image->mBase);
    const uint64_t delta = reinterpret_cast<uintptr_t>(image->mBase) - layout.imageBase;
    if (!applyRelocations(image->mBase, layout, delta, error) ||
        !bindImports(image->mBase, layout, resolve, &image->mImports, error))
        return nullptr;
    // Headers read-only; each section as its flags say (code read+execute,
    // read-only data read-only, data read+write), rounded up to pages.
    bool ok = mprotect(image->mBase, layout.sizeOfHeaders, PROT_READ) == 0;
    for (const Section& s : layout.sections) {
        int prot = PROT_READ;
        if (s.executable())
            prot |= PROT_EXEC;
        if (s.writable())
            prot |= PROT_WRITE;
        const size_t length = (size_t(s.virtualSize) + kPage - 1) / kPage * kPage;
        ok = ok && mprotect(image->mBase + s.rva, length, prot) == 0;
    }
    if (!ok) {
        fail(error, "cannot set section protections");
        return nullptr;
    }
    if (!registerImage(image->mBase, layout.sizeOfImage)) {
        fail(error, "more than " + std::to_string(kMaxLoadedImages) + " images loaded at once");
        return nullptr;
    }
    image->mRegistered = true;
    return image;
}

LoadedImage::~LoadedImage() {
    if (mBase) {
        if (mRegistered)
            unregisterImage(mBase);
        munmap(mBase, mMapped);
    }
}

} // namespace hostimg
