// A tiny kernel image (mmeprobe.sys) built with the driver's toolchain for
// the image tests: the registry path's first character is a command, and
// DbgPrint reports what it saw:
//   'p'  DbgPrint's Windows argument rules: %ld given a 64-bit value, %I64x, %ws
//   'i'  the IRQL as the inline DDK functions read and set it (CR8)
//   't'  the current thread as the inline DDK function reads it (gs:[0x188])
//   'c'  a privileged instruction no driver may execute (cli)
//   'o'  one byte written past the end of a pool block
//   'f'  a pool block read after it was freed
//   'r'  a recursion that needs more than 24 KB of stack
//   'x'  an allocation from executable pool
#include "driver/platform/platform.h"

namespace {

constexpr ULONG kTag = 0x65626F50; // 'Pobe'

// Called through a volatile pointer, so that no compiler turns the recursion
// into a loop; each level keeps 512 bytes on the stack.
int (*volatile gDeeper)(int);
int deeper(int levels) {
    volatile char frame[512];
    frame[0] = char(levels);
    return levels ? gDeeper(levels - 1) + frame[0] : 0;
}

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(DriverObject);
    switch (RegistryPath && RegistryPath->Length ? RegistryPath->Buffer[0] : 0) {
    case L'p': {
        const long long wide = 0x1234567890LL; // %ld takes its low 32 bits
        DbgPrint("probe %ld %I64x %ws|\n", wide, 0xFEDCBA9876543210ULL, L"wide");
        return STATUS_SUCCESS;
    }
    case L'i': {
        const KIRQL before = KeGetCurrentIrql();
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        const KIRQL raised = KeGetCurrentIrql();
        KeLowerIrql(old);
        DbgPrint("probe irql %u %u %u %u\n", before, old, raised, KeGetCurrentIrql());
        return STATUS_SUCCESS;
    }
    case L't':
        DbgPrint("probe thread %p\n", KeGetCurrentThread());
        return STATUS_SUCCESS;
    case L'c':
        __asm__ __volatile__("cli");
        DbgPrint("probe after cli\n");
        return STATUS_SUCCESS;
    case L'o':
    case L'f': {
        auto* block = static_cast<volatile char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTag));
        if (RegistryPath->Buffer[0] == L'o')
            block[16] = 1;
        ExFreePoolWithTag((PVOID)block, kTag);
        if (RegistryPath->Buffer[0] == L'f')
            DbgPrint("probe read %d\n", block[0]);
        return STATUS_SUCCESS;
    }
    case L'r':
        gDeeper = deeper;
        DbgPrint("probe deep %d\n", deeper(60));
        return STATUS_SUCCESS;
    case L'x':
        ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolExecute, 16, kTag), kTag);
        return STATUS_SUCCESS;
    }
    return STATUS_INVALID_PARAMETER;
}
