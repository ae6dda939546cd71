// Fuzzes the image loader's parsing of arbitrary files, in plain memory. A
// refusal always says why; an accepted layout keeps every section inside
// the image and the file, and every function of its table inside code; every
// bound import slot lies inside the image and holds the host export of its
// name. A wrong CheckSum is refused with its reason and the rest still read.
#include "FuzzSupport.h"

#include "host/image/Exports.h"
#include "host/image/PeImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    hostimg::Layout layout;
    std::string error;
    if (!hostimg::parseHeaders(data, size, &layout, &error)) {
        FUZZ_CHECK(!error.empty(), "refused without a reason");
        return 0;
    }
    for (const auto& s : layout.sections) {
        FUZZ_CHECK(uint64_t(s.rva) + s.virtualSize <= layout.sizeOfImage,
                   "section " + s.name + " outside the image");
        FUZZ_CHECK(uint64_t(s.rawOffset) + s.rawSize <= size,
                   "section " + s.name + " outside the file");
    }
    FUZZ_CHECK(layout.sizeOfHeaders <= size && layout.sizeOfHeaders <= layout.sizeOfImage,
               "headers outside the file");

    if (!hostimg::verifyChecksum(data, size, layout, &error))
        FUZZ_CHECK(!error.empty(), "checksum refused without a reason");

    std::vector<uint8_t> image(layout.sizeOfImage);
    hostimg::mapSections(data, layout, image.data());
    std::vector<hostimg::Function> functions;
    if (!hostimg::readFunctions(image.data(), layout, &functions, &error)) {
        FUZZ_CHECK(!error.empty(), "function table refused without a reason");
        return 0;
    }
    for (const auto& f : functions)
        FUZZ_CHECK(f.begin < f.end && f.end <= layout.sizeOfImage, "function outside the image");
    if (!hostimg::applyRelocations(image.data(), layout, 0x7f0000000000 - layout.imageBase,
                                   &error)) {
        FUZZ_CHECK(!error.empty(), "relocations refused without a reason");
        return 0;
    }
    std::vector<hostimg::Import> bound;
    if (!hostimg::bindImports(image.data(), layout, &hostimg::hostExport, &bound, &error)) {
        FUZZ_CHECK(!error.empty(), "imports refused without a reason");
        return 0;
    }
    for (const auto& i : bound) {
        FUZZ_CHECK(uint64_t(i.slotRva) + 8 <= image.size(), "slot outside the image");
        void* slot;
        std::memcpy(&slot, &image[i.slotRva], sizeof slot);
        FUZZ_CHECK(slot && slot == hostimg::hostExport(i.dll, i.name),
                   "slot of " + i.dll + "!" + i.name + " not bound to its export");
    }
    return 0;
}
