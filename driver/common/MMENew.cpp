// The driver's global new and delete for the Windows build, where no C++
// runtime exists. All forms are noexcept and zero-fill like MMEAllocateObject.
// The host build leaves the global operators to the host process.
#ifdef _WIN32
#include "MMEUnknown.h"

void* operator new(SIZE_T size) noexcept {
    return MMEAllocateObject(size);
}
void* operator new[](SIZE_T size) noexcept {
    return MMEAllocateObject(size);
}
void operator delete(void* p) noexcept {
    MMEFreeObject(p);
}
void operator delete[](void* p) noexcept {
    MMEFreeObject(p);
}
void operator delete(void* p, SIZE_T) noexcept {
    MMEFreeObject(p);
}
void operator delete[](void* p, SIZE_T) noexcept {
    MMEFreeObject(p);
}
#endif
