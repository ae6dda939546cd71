// Reference-counted base of every driver object, and the pool allocation
// operations all objects and buffers come from (non-paged memory).
#pragma once

#include "../platform/platform.h"

// Object allocation: zero-filled; a size of 0 is raised to 1; null on failure.
void* MMEAllocateObject(SIZE_T size);
// Object release: null is ignored.
void MMEFreeObject(void* p);
// Sized allocation: not cleared; null on failure.
void* MMEAllocate(ULONG size);
// Sized free: size is the one given at allocation; null is ignored.
void MMEFree(void* p, ULONG size);

// Driver objects are created with a zero-filling, non-throwing new. On
// Windows the global new/delete are the driver's (MMENew.cpp); on host the
// process's global new belongs to the host, so driver classes take theirs
// from this base, which resolves to the same operations in both builds.
struct MMEPoolObject {
    static void* operator new(SIZE_T size) noexcept { return MMEAllocateObject(size); }
    static void operator delete(void* p) noexcept { MMEFreeObject(p); }
};

class MMERefCounter {
public:
    MMERefCounter() : mCount(0) {}
    virtual ~MMERefCounter() {}
    LONG increment() { return InterlockedIncrement(&mCount); }
    LONG decrement() { return InterlockedDecrement(&mCount); }
    LONG value() const {
        return InterlockedCompareExchange(const_cast<volatile LONG*>(&mCount), 0, 0);
    }

private:
    volatile LONG mCount;
};

class MMEUnknown : public MMEPoolObject {
public:
    MMEUnknown() {}
    virtual ~MMEUnknown() {}

    ULONG AddRef() { return (ULONG)mReferences.increment(); }
    // 0 when the object was deleted, else the count this decrement left.
    ULONG Release();
    LONG referenceCount() const { return mReferences.value(); }

private:
    MMERefCounter mReferences;
};

// The shared AddRef/Release slots of every class's interface.
#define MME_IMPLEMENT_REFCOUNT                                                                     \
    STDMETHODIMP_(ULONG) AddRef() override {                                                       \
        return MMEUnknown::AddRef();                                                               \
    }                                                                                              \
    STDMETHODIMP_(ULONG) Release() override {                                                      \
        return MMEUnknown::Release();                                                              \
    }
