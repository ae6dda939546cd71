// The export table. Every entry is called by the image with the Windows x64
// convention; the C library's memory functions get ms_abi wrappers here
// because the host's own follow the System V convention.
#include "Exports.h"

#include "driver/platform/platform.h"

#include <strings.h>

#include <cstring>

namespace hostimg {
namespace {

#define MS_ABI __attribute__((ms_abi))

MS_ABI void* msMemcpy(void* d, const void* s, size_t n) {
    return std::memcpy(d, s, n);
}
MS_ABI void* msMemmove(void* d, const void* s, size_t n) {
    return std::memmove(d, s, n);
}
MS_ABI void* msMemset(void* d, int c, size_t n) {
    return std::memset(d, c, n);
}
MS_ABI int msMemcmp(const void* a, const void* b, size_t n) {
    return std::memcmp(a, b, n);
}

#define NT(f)                                                                                      \
    { "ntoskrnl.exe", #f, reinterpret_cast<void*>(&f) }
#define PC(f)                                                                                      \
    { "portcls.sys", #f, reinterpret_cast<void*>(&f) }

} // namespace

const std::vector<Export>& hostExports() {
    static const std::vector<Export> table = {
        NT(DbgPrint),
        NT(RtlAssert),
        NT(KeDelayExecutionThread),
        NT(KeAcquireSpinLockRaiseToDpc),
        NT(KeReleaseSpinLock),
        NT(KeAcquireSpinLockAtDpcLevel),
        NT(KeReleaseSpinLockFromDpcLevel),
        NT(KeInitializeDpc),
        NT(KeInitializeTimer),
        NT(KeSetTimer),
        NT(KeCancelTimer),
        NT(KeFlushQueuedDpcs),
        NT(KeInsertQueueDpc),
        NT(KeRemoveQueueDpc),
        NT(ExInitializeRundownProtection),
        NT(ExReInitializeRundownProtection),
        NT(ExAcquireRundownProtection),
        NT(ExReleaseRundownProtection),
        NT(ExWaitForRundownProtectionRelease),
        NT(ExAllocatePoolWithTag),
        NT(ExFreePoolWithTag),
        NT(ObfReferenceObject),
        NT(ObfDereferenceObject),
        NT(IoAllocateIrp),
        NT(IoFreeIrp),
        NT(IofCallDriver),
        NT(IofCompleteRequest),
        NT(RtlIsNtDdiVersionAvailable),
        {"ntoskrnl.exe", "memcpy", reinterpret_cast<void*>(&msMemcpy)},
        {"ntoskrnl.exe", "memmove", reinterpret_cast<void*>(&msMemmove)},
        {"ntoskrnl.exe", "memset", reinterpret_cast<void*>(&msMemset)},
        {"ntoskrnl.exe", "memcmp", reinterpret_cast<void*>(&msMemcmp)},
        PC(PcInitializeAdapterDriver),
        PC(PcAddAdapterDevice),
        PC(PcNewPort),
        PC(PcNewServiceGroup),
        PC(PcRegisterPhysicalConnection),
        PC(PcRegisterSubdevice),
    };
    return table;
}

void* hostExport(const std::string& dll, const std::string& name) {
    for (const Export& e : hostExports())
        if (strcasecmp(e.dll, dll.c_str()) == 0 && name == e.name)
            return e.address;
    return nullptr;
}

} // namespace hostimg
