#include "MMEUnknown.h"

ULONG MMEUnknown::Release() {
    LONG remaining = mReferences.decrement();
    if (remaining == 0) {
        delete this;
        return 0;
    }
    // The count our own decrement left. Reading the counter again could touch
    // an object that another thread's final Release has deleted meanwhile.
    return (ULONG)remaining;
}

void* MMEAllocateObject(SIZE_T size) {
    if (size == 0)
        size = 1;
    void* p = ExAllocatePool(NonPagedPool, size);
    if (p)
        RtlZeroMemory(p, size);
    return p;
}

void MMEFreeObject(void* p) {
    if (p)
        ExFreePoolWithTag(p, 0);
}

void* MMEAllocate(ULONG size) {
    return ExAllocatePool(NonPagedPool, size);
}

void MMEFree(void* p, ULONG size) {
    (void)size;
    if (p)
        ExFreePoolWithTag(p, 0);
}
