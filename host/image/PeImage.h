// A PE32+ native image (a Windows x64 kernel driver, .sys) loaded into this
// process: headers checked, sections mapped with their own protections, base
// relocations applied and every import bound to a host export by DLL and
// name, as the kernel's loader does before it calls the entry point.
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
    Directory imports;
    Directory relocations;
    std::vector<Section> sections;
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

// Copies headers and sections from the file into image (layout.sizeOfImage
// bytes, zero-filled by the caller).
void mapSections(const uint8_t* file, const Layout& layout, uint8_t* image);

// Adds delta (new base minus the linked base) to every DIR64 target. Unknown
// relocation types and targets outside the image are refused.
bool applyRelocations(uint8_t* image, const Layout& layout, uint64_t delta, std::string* error);

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
    void* entryPoint() const { return mBase + mLayout.entryRva; }
    bool contains(const void* p) const {
        auto a = reinterpret_cast<const uint8_t*>(p);
        return a >= mBase && a < mBase + mLayout.sizeOfImage;
    }

private:
    LoadedImage() = default;
    uint8_t* mBase = nullptr;
    size_t mMapped = 0;
    bool mRegistered = false;
    Layout mLayout;
    std::vector<Import> mImports;
};

} // namespace hostimg
