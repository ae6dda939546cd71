// PE32+ parsing, mapping, relocation and import binding. Field offsets are
// those of the PE/COFF format (IMAGE_DOS_HEADER, IMAGE_NT_HEADERS64,
// IMAGE_SECTION_HEADER, IMAGE_BASE_RELOCATION, IMAGE_IMPORT_DESCRIPTOR); all
// reads go through bounds-checked helpers because the bytes are untrusted.
#include "PeImage.h"

#include "ImageRegistry.h"
#include "host/kernel/HostKernel.h"

#include <cxxabi.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

extern "C" void hostk_image_enter();

namespace hostimg {
namespace {

constexpr uint16_t kMachineAmd64 = 0x8664;
constexpr uint16_t kMagicPe32Plus = 0x20b;
constexpr uint16_t kSubsystemNative = 1;
constexpr uint16_t kCharRelocsStripped = 0x0001;
constexpr uint16_t kCharExecutable = 0x0002;
constexpr uint16_t kCharDll = 0x2000;
constexpr uint32_t kScnUninitialized = 0x00000080;
constexpr int kDirExport = 0;
constexpr int kDirImport = 1;
constexpr int kDirException = 3;
constexpr int kDirBaseReloc = 5;
constexpr int kDirTls = 9;
constexpr int kDirIat = 12;
constexpr uint32_t kThunkSize = 16;
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
    // PE format, IMAGE_FILE_RELOCS_STRIPPED: such an image must be loaded at
    // its preferred base, and the kernel loads drivers where it finds room.
    if (characteristics & kCharRelocsStripped)
        return fail(error, "relocations stripped (IMAGE_FILE_RELOCS_STRIPPED): a driver is loaded "
                           "at an address of the kernel's choosing");

    const uint64_t optOffset = uint64_t(pe) + 24;
    if (optionalSize < 112 || !fits(optOffset, optionalSize, size))
        return fail(error, "optional header of " + std::to_string(optionalSize) +
                               " bytes does not fit the file");
    const uint8_t* opt = file + optOffset;
    if (rd16(opt) != kMagicPe32Plus)
        return fail(error, "optional header magic " + hex(rd16(opt)) + " is not PE32+ (0x20b)");
    layout->checkSumOffset = uint32_t(optOffset + 64);
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
    // Code integrity (0x2004, "the image contains a section that is not page
    // aligned"): each section gets its own page protections.
    if (!powerOfTwo(layout->sectionAlignment) || layout->sectionAlignment < kPage)
        return fail(error, "section alignment " + hex(layout->sectionAlignment) +
                               " is not a power of two of at least a page (sections must start "
                               "on pages)");
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
    layout->exceptions = directory(kDirException);
    const Directory exports = directory(kDirExport), iat = directory(kDirIat);
    // x64 exception handling: "Table-based exception handling requires a
    // table entry for all functions that allocate stack space or call
    // another function"; without one nothing can unwind the driver's code
    // (a bug check's stack, an exception). Windows would still load it; the
    // stricter choice refuses.
    if (layout->exceptions.size == 0)
        return fail(error, "no exception directory (.pdata): the x64 code cannot be unwound");
    // The kernel's loader sets up no thread-local storage for a driver, so
    // TLS data would be shared or missing; the documentation is silent and
    // the stricter choice refuses.
    if (directory(kDirTls).size != 0)
        return fail(error, "a TLS directory: the kernel gives a driver no thread-local storage");

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
        // Code integrity (0x2003) and memory integrity: executable pages are
        // never writable.
        if (s.executable() && s.writable())
            return fail(error, which + " is writable and executable");
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
    if (!inImage(layout->exceptions) || layout->exceptions.size % 12)
        return fail(error,
                    "exception directory is not a table of RUNTIME_FUNCTIONs inside the image");
    // Code integrity (0x2005, "the image contains an IAT located in an
    // executable section"); the import and export tables are data the loader
    // writes or reads, never code.
    const std::pair<const char*, Directory> tables[] = {{"import table", layout->imports},
                                                        {"import address table", iat},
                                                        {"export table", exports}};
    for (const auto& [what, d] : tables)
        for (const Section& s : layout->sections)
            if (d.size && s.executable() && d.rva < uint64_t(s.rva) + s.virtualSize &&
                s.rva < uint64_t(d.rva) + d.size)
                return fail(error, std::string(what) + " lies inside executable section " + s.name);
    return true;
}

uint32_t fileChecksum(const uint8_t* file, size_t size, uint32_t fieldOffset) {
    uint64_t sum = 0;
    for (size_t i = 0; i < size; i += 2) {
        uint32_t word = file[i] | (i + 1 < size ? file[i + 1] << 8 : 0);
        if (i >= fieldOffset && i < uint64_t(fieldOffset) + 4)
            word = 0;
        sum += word;
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return uint32_t(((sum & 0xffff) + (sum >> 16)) + size);
}

// PE format, CheckSum: "checked at load time" for drivers; "Checksums are
// required for kernel-mode drivers" (CheckSumMappedFile).
bool verifyChecksum(const uint8_t* file, size_t size, const Layout& layout, std::string* error) {
    if (!fits(layout.checkSumOffset, 4, size))
        return fail(error, "no CheckSum field inside the file");
    const uint32_t stored = rd32(file + layout.checkSumOffset);
    const uint32_t computed = fileChecksum(file, size, layout.checkSumOffset);
    if (stored != computed)
        return fail(error,
                    "CheckSum " + hex(stored) + " does not match the image's " + hex(computed));
    return true;
}

bool readFunctions(const uint8_t* image, const Layout& layout, std::vector<Function>* functions,
                   std::string* error) {
    functions->clear();
    uint32_t previousEnd = 0;
    for (uint32_t at = 0; at < layout.exceptions.size; at += 12) {
        const uint8_t* e = image + layout.exceptions.rva + at;
        const Function f{rd32(e), rd32(e + 4), rd32(e + 8)};
        const std::string which = "function table entry " + std::to_string(at / 12);
        const Section* code = nullptr;
        for (const Section& s : layout.sections)
            if (s.executable() && f.begin >= s.rva && f.end <= uint64_t(s.rva) + s.virtualSize)
                code = &s;
        if (f.begin >= f.end || !code)
            return fail(error, which + " (" + hex(f.begin) + ".." + hex(f.end) +
                                   ") is not inside executable code");
        if (f.begin < previousEnd)
            return fail(error, which + " at " + hex(f.begin) + " is out of order");
        if (!fits(f.unwind & ~1u, 4, layout.sizeOfImage))
            return fail(error, which + " has its unwind data outside the image");
        previousEnd = f.end;
        functions->push_back(f);
    }
    return true;
}

void mapSections(const uint8_t* file, const Layout& layout, uint8_t* image) {
    std::memcpy(image, file, layout.sizeOfHeaders);
    for (const Section& s : layout.sections)
        std::memcpy(image + s.rva, file + s.rawOffset, std::min(s.rawSize, s.virtualSize));
}

bool applyRelocations(uint8_t* image, const Layout& layout, uint64_t delta, std::string* error,
                      std::vector<uint32_t>* slots) {
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
            if (slots)
                slots->push_back(uint32_t(target));
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

namespace {

// Names the code of whichever loaded image holds pc, for the host kernel's
// reports.
bool describeImageCode(uintptr_t pc, char* text, size_t size) {
    const LoadedImage* image = imageOwning(pc);
    return image && image->describe(pc, text, size);
}

std::string demangled(const std::string& name) {
    int status = -1;
    char* text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    std::string result = status == 0 && text ? text : name;
    std::free(text);
    return result;
}

} // namespace

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
    if (!image) {
        fail(error, path + ": " + reason);
        return image;
    }
    const size_t slash = path.find_last_of('/');
    image->mName = path.substr(slash == std::string::npos ? 0 : slash + 1);
    const size_t dot = path.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash))
        image->readLinkMap(path.substr(0, dot) + ".map");
    return image;
}

std::unique_ptr<LoadedImage> LoadedImage::load(const std::vector<uint8_t>& file,
                                               const Resolver& resolve, std::string* error) {
    std::unique_ptr<LoadedImage> image(new LoadedImage);
    if (!parseHeaders(file.data(), file.size(), &image->mLayout, error) ||
        !verifyChecksum(file.data(), file.size(), image->mLayout, error))
        return nullptr;
    const Layout& layout = image->mLayout;
    // The thunks follow the image, within reach of its RIP-relative LEAs.
    const size_t thunks = layout.exceptions.size / 12 + layout.relocations.size / 2 + 1;
    const size_t thunkBytes = (kThunkSize * thunks + kPage - 1) / kPage * kPage;
    const size_t mapped = size_t(layout.sizeOfImage) + thunkBytes;
    void* mem = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        fail(error, "cannot map " + std::to_string(mapped) + " bytes");
        return nullptr;
    }
    image->mBase = static_cast<uint8_t*>(mem);
    image->mMapped = mapped;
    image->mThunkArea = layout.sizeOfImage;
    mapSections(file.data(), layout, image->mBase);
    const uint64_t delta = reinterpret_cast<uintptr_t>(image->mBase) - layout.imageBase;
    std::vector<uint32_t> slots;
    std::vector<Function> functions;
    if (!readFunctions(image->mBase, layout, &functions, error) ||
        !applyRelocations(image->mBase, layout, delta, error, &slots) ||
        !bindImports(image->mBase, layout, resolve, &image->mImports, error))
        return nullptr;
    image->makeThunks(functions, slots);
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
    ok = ok && mprotect(image->mBase + image->mThunkArea, thunkBytes, PROT_READ | PROT_EXEC) == 0;
    if (!ok) {
        fail(error, "cannot set section protections");
        return nullptr;
    }
    if (!registerImage(image->mBase, mapped, image.get())) {
        fail(error, "more than " + std::to_string(kMaxLoadedImages) + " images loaded at once");
        return nullptr;
    }
    image->mRegistered = true;
    hostk::setCodeDescriber(&describeImageCode);
    return image;
}

// One thunk per function (the exception directory lists every function that
// has a frame; leaf functions without one, such as the compiler's this-
// adjusting thunks, are found as targets of relocated pointers). A thunk
// loads the function into r11 and jumps to hostk_image_enter through the
// jump at the area's start.
void LoadedImage::makeThunks(const std::vector<Function>& functions,
                             const std::vector<uint32_t>& slots) {
    const uint64_t base = reinterpret_cast<uintptr_t>(mBase);
    auto inCode = [&](uint64_t rva) {
        for (const Section& s : mLayout.sections)
            if (s.executable() && rva >= s.rva && rva < uint64_t(s.rva) + s.virtualSize)
                return true;
        return false;
    };
    auto insideFunction = [&](uint64_t rva) {
        auto it = std::upper_bound(functions.begin(), functions.end(), rva,
                                   [](uint64_t r, const Function& f) { return r < f.begin; });
        return it != functions.begin() && rva < std::prev(it)->end;
    };
    std::vector<uint32_t> starts;
    for (const Function& f : functions)
        starts.push_back(f.begin);
    for (uint32_t slot : slots) {
        const uint64_t rva = rd64(mBase + slot) - base;
        if (inCode(rva) && !insideFunction(rva))
            starts.push_back(uint32_t(rva));
    }
    std::sort(starts.begin(), starts.end());
    starts.erase(std::unique(starts.begin(), starts.end()), starts.end());
    const size_t room = (mMapped - mThunkArea) / kThunkSize - 1;
    if (starts.size() > room)
        starts.resize(room);

    uint8_t* area = mBase + mThunkArea;
    const uint8_t jump[6] = {0xff, 0x25, 0, 0, 0, 0}; // jmp [rip+0]
    std::memcpy(area, jump, 6);
    const uint64_t enter = reinterpret_cast<uintptr_t>(&hostk_image_enter);
    std::memcpy(area + 6, &enter, 8);
    for (size_t i = 0; i < starts.size(); ++i) {
        const uint32_t thunk = mThunkArea + kThunkSize * uint32_t(i + 1);
        uint8_t* t = mBase + thunk;
        const uint64_t target = base + starts[i];
        t[0] = 0x49, t[1] = 0xbb; // mov r11, imm64
        std::memcpy(t + 2, &target, 8);
        t[10] = 0xe9; // jmp rel32 to the area's start
        const int32_t back = int32_t(mThunkArea) - int32_t(thunk + 15);
        std::memcpy(t + 11, &back, 4);
        t[15] = 0xcc;
        mThunks.emplace_back(starts[i], thunk);
    }
    auto thunkOf = [&](uint64_t rva) -> uint32_t {
        auto it =
            std::lower_bound(mThunks.begin(), mThunks.end(), std::make_pair(uint32_t(rva), 0u));
        return it != mThunks.end() && it->first == rva ? it->second : 0;
    };
    for (uint32_t slot : slots)
        if (const uint32_t thunk = thunkOf(rd64(mBase + slot) - base)) {
            const uint64_t v = base + thunk;
            std::memcpy(mBase + slot, &v, 8);
        }
    // lea reg, [rip+disp32] with REX.W (48..4F 8D, ModRM mod 00 r/m 101) whose
    // target is a function start: the address of a callback taken at run time.
    for (const Section& s : mLayout.sections) {
        if (!s.executable() || s.virtualSize < 7)
            continue;
        for (uint32_t at = s.rva; at + 7 <= s.rva + s.virtualSize; ++at) {
            const uint8_t* c = mBase + at;
            if ((c[0] & 0xf8) != 0x48 || c[1] != 0x8d || (c[2] & 0xc7) != 0x05)
                continue;
            const int64_t target = int64_t(at) + 7 + int32_t(rd32(c + 3));
            if (target < 0)
                continue;
            if (const uint32_t thunk = thunkOf(uint64_t(target))) {
                const int32_t disp = int32_t(thunk) - int32_t(at + 7);
                std::memcpy(mBase + at + 3, &disp, 4);
            }
        }
    }
}

void* LoadedImage::entryPoint() const {
    for (const auto& [function, thunk] : mThunks)
        if (function == mLayout.entryRva)
            return mBase + thunk;
    return mBase + mLayout.entryRva;
}

// GNU ld's map: the input sections of -ffunction-sections (".text$NAME" and
// its address, on the same line or the next) and the global symbols
// ("ADDRESS  NAME", demangled).
void LoadedImage::readLinkMap(const std::string& path) {
    std::ifstream in(path);
    if (!in)
        return;
    const uint64_t linked = mLayout.imageBase;
    std::vector<std::pair<uint32_t, std::string>> symbols;
    std::string line, pending;
    auto add = [&](uint64_t address, const std::string& name, bool global) {
        if (address < linked || address - linked >= mLayout.sizeOfImage || name.empty())
            return;
        symbols.emplace_back(uint32_t(address - linked), (global ? "1" : "0") + name);
    };
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string first, second;
        words >> first >> second;
        if (!pending.empty() && first.rfind("0x", 0) == 0) {
            add(std::strtoull(first.c_str(), nullptr, 16), demangled(pending), false);
            pending.clear();
            continue;
        }
        pending.clear();
        if (first.rfind(".text$", 0) == 0) {
            if (second.rfind("0x", 0) == 0)
                add(std::strtoull(second.c_str(), nullptr, 16), demangled(first.substr(6)), false);
            else
                pending = first.substr(6);
        } else if (first.rfind("0x", 0) == 0 && first.size() == 18 && !second.empty() &&
                   second.rfind("0x", 0) != 0) {
            const size_t at = line.find_first_not_of(" \t", line.find(first) + first.size());
            add(std::strtoull(first.c_str(), nullptr, 16), line.substr(at), true);
        }
    }
    // A global symbol names a place better than the section it is in.
    std::sort(symbols.begin(), symbols.end(), [](const auto& a, const auto& b) {
        return a.first != b.first ? a.first < b.first : a.second > b.second;
    });
    for (auto& [rva, name] : symbols)
        if (mSymbols.empty() || mSymbols.back().first != rva)
            mSymbols.emplace_back(rva, name.substr(1));
}

bool LoadedImage::describe(uintptr_t pc, char* text, size_t size) const {
    const uintptr_t base = reinterpret_cast<uintptr_t>(mBase);
    if (pc < base || pc - base >= mMapped)
        return false;
    uint32_t rva = uint32_t(pc - base);
    const char* prefix = "";
    if (rva >= mThunkArea) {
        const uint32_t index = (rva - mThunkArea) / kThunkSize;
        if (index == 0 || index > mThunks.size()) {
            std::snprintf(text, size, "%s entry thunks", mName.c_str());
            return true;
        }
        prefix = "entry thunk of ";
        rva = mThunks[index - 1].first;
    }
    auto it = std::upper_bound(mSymbols.begin(), mSymbols.end(), rva,
                               [](uint32_t r, const auto& symbol) { return r < symbol.first; });
    if (it == mSymbols.begin()) {
        std::snprintf(text, size, "%s%s+0x%x", prefix, mName.c_str(), rva);
    } else {
        --it;
        std::snprintf(text, size, "%s%s+0x%x (%s+0x%x)", prefix, mName.c_str(), rva,
                      it->second.c_str(), rva - it->first);
    }
    return true;
}

LoadedImage::~LoadedImage() {
    if (mBase) {
        if (mRegistered)
            unregisterImage(mBase);
        munmap(mBase, mMapped);
    }
}

} // namespace hostimg
