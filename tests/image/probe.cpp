// A tiny kernel image (mmeprobe.sys) built with the driver's toolchain for
// the image tests: the registry path's first character is a command, and
// DbgPrint reports what it saw:
//   'p'  DbgPrint's Windows argument rules: %ld given a 64-bit value, %I64x, %ws
//   'i'  the IRQL as the inline DDK functions read and set it (CR8)
//   't'  the current thread as the inline DDK function reads it (gs:[0x188])
//   'c'  a privileged instruction no driver may execute (cli)
#include "driver/platform/platform.h"

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
    }
    return STATUS_INVALID_PARAMETER;
}
