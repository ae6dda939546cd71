// A PE32+ native image (a Windows x64 kernel driver, .sys) loaded into this
// process: headers checked, sections mapped with their own protections, base
// relocations applied and every import bound to a host export by DLL and
// name, as the kernel's loader does before it calls the entry point.
// What Windows refuses to load, or its code integrity check and memory
// integrity (HVCI) refuse, is refused here with its reason: a section both
// writable and executable, a CheckSum that is not the file's, stripped
// relocations, no exception directory, a TLS directory, an import or export
// table inside executable code, sections not on pages.
//
// Every way into the image's code goes through a thunk the loader adds
// after the image (host/kernel/Stacks.cpp: the code runs on a driver stack):
// the entry point, every relocated pointer to a function (vtables, handler
// tables) and every RIP-relative LEA of a function start (callbacks the
// driver hands out at run time). Internal direct calls stay as they are.
//
// The steps are separate functions over plain memory so that the fuzz target
// and the tests reach the parsing without mapping anything executable:
//   parseHeaders(file)            -> Layout (sections, directories, entry)
//   mapSections(file, layout, m)  -> the image as the kernel lays it out in m
//   applyRelocations(m, ...)      -> DIR64 fixups for a new base
//   bindImports(m, ..., resolve)  -> import address table filled
// Every failure is a sentence naming what is wrong; nothing reads outside
// the file or the image, whatever the bytes say.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace hostimg {

struct Section {
    std::string name;
    uint32_t rva = 0;
    uint32_t virtualSize = 0; // bytes in the image (page-rounded when mapped)
    uint32_t rawOffset = 0;
    uint32_t rawSize = 0; // bytes taken from the file (the rest is zero)
    uint32_t characteristics = 0;
    bool executable() const { return characteristics & 0x20000000u; }
    bool writable() const { return characteristics & 0x80000000u; }
};

struct Directory {
    uint32_t rva = 0;
    uint32_t size = 0;
};

struct Layout {
    uint64_t imageBase = 0; // the address the image was linked for
    uint32_t sizeOfImage = 0;
    uint32_t sizeOfHeaders = 0;
    uint32_t sectionAlignment = 0;
    uint32_t entryRva = 0;
    uint32_t checkSumOffset = 0; // of the optional header's CheckSum in the file
    Directory imports;
    Directory relocations;
    Directory exceptions; // .pdata: RUNTIME_FUNCTION entries
    std::vector<Section> sections;
};

// A RUNTIME_FUNCTION of the exception directory.
struct Function {
    uint32_t begin = 0;
    uint32_t end = 0;
    uint32_t unwind = 0;
};

// One bound import, for reports and tests.
struct Import {
    std::string dll;
    std::string name;
    uint32_t slotRva = 0; // the import address table entry
};

// Headers of a file in memory: MZ and PE signatures, machine x86-64, PE32+,
// native subsystem, an executable image, sane alignments, every section and
// directory inside the file and the image, the entry point in code.
// False with *error set when anything is off.
bool parseHeaders(const uint8_t* file, size_t size, Layout* layout, std::string* error);

// The file's checksum as the optional header's CheckSum is computed (the
// field itself taken as zero); false with *error when it differs.
uint32_t fileChecksum(const uint8_t* file, size_t size, uint32_t fieldOffset);
bool verifyChecksum(const uint8_t* file, size_t size, const Layout& layout, std::string* error);

// Copies headers and sections from the file into image (layout.sizeOfImage
// bytes, zero-filled by the caller).
void mapSections(const uint8_t* file, const Layout& layout, uint8_t* image);

// The function table of a mapped image: sorted, each function inside an
// executable section, its unwind data inside the image.
bool readFunctions(const uint8_t* image, const Layout& layout, std::vector<Function>* functions,
                   std::string* error);

// Adds delta (new base minus the linked base) to every DIR64 target. Unknown
// relocation types and targets outside the image are refused. slots, when
// given, receives the RVA of every target.
bool applyRelocations(uint8_t* image, const Layout& layout, uint64_t delta, std::string* error,
                      std::vector<uint32_t>* slots = nullptr);

// Address a host export stands at, or null when the host has none.
using Resolver = std::function<void*(const std::string& dll, const std::string& name)>;
// Fills the import address table. Names are read only inside the image; an
// import by ordinal or one the resolver does not know refuses the load with
// its DLL and name.
bool bindImports(uint8_t* image, const Layout& layout, const Resolver& resolve,
                 std::vector<Import>* bound, std::string* error);

// The image mapped into this process, executable. Unmapped on destruction.
class LoadedImage {
public:
    // Reads and loads a file; null with *error ("PATH: reason") on failure.
    // The link map next to it (NAME.map for NAME.sys), when there is one,
    // names the image's code in reports.
    static std::unique_ptr<LoadedImage> loadFile(const std::string& path, const Resolver& resolve,
                                                 std::string* error);
    static std::unique_ptr<LoadedImage> load(const std::vector<uint8_t>& file,
                                             const Resolver& resolve, std::string* error);
    ~LoadedImage();
    LoadedImage(const LoadedImage&) = delete;
    LoadedImage& operator=(const LoadedImage&) = delete;

    uint8_t* base() const { return mBase; }
    size_t size() const { return mLayout.sizeOfImage; }
    const Layout& layout() const { return mLayout; }
    const std::vector<Import>& imports() const { return mImports; }
    // The entry point's thunk: DriverEntry runs on a driver stack.
    void* entryPoint() const;
    bool contains(const void* p) const {
        auto a = reinterpret_cast<const uint8_t*>(p);
        return a >= mBase && a < mBase + mLayout.sizeOfImage;
    }
    // "NAME.sys+0x1234 (Symbol+0x10)" into text[size] for an address of the
    // image or its thunks, without allocating; false for any other address.
    bool describe(uintptr_t pc, char* text, size_t size) const;

private:
    LoadedImage() = default;
    void makeThunks(const std::vector<Function>& functions, const std::vector<uint32_t>& slots);
    void readLinkMap(const std::string& path);
    uint8_t* mBase = nullptr;
    size_t mMapped = 0;
    bool mRegistered = false;
    Layout mLayout;
    std::vector<Import> mImports;
    std::string mName = "image";
    uint32_t mThunkArea = 0;                                // RVA of the thunks, after the image
    std::vector<std::pair<uint32_t, uint32_t>> mThunks;     // function RVA, thunk RVA; sorted
    std::vector<std::pair<uint32_t, std::string>> mSymbols; // sorted by RVA
};

} // namespace hostimg
