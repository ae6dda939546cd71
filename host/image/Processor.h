// What a kernel image reads from the processor, given to it on Linux.
//
// GS: the image reads the current thread from gs:[0x188] (the DDK's inline
// KeGetCurrentThread). Each thread that runs image code has its GS base set
// (arch_prctl) to a block of its own whose offset 0x188 holds the thread
// object the host's KeGetCurrentThread returns. A thread reaching image code
// with no GS base faults on its first read and gets its block then; a thread
// created by one that had a block inherits it (Linux copies the GS base), so
// the host's threads call hostk::enterDriverThread() when they start.
//
// CR8: the image reads and writes the IRQL through CR8 (KeGetCurrentIrql,
// KeRaiseIrql, KeLowerIrql are inline). In user mode that is a general
// protection fault; the SIGSEGV handler decodes `mov` from or to CR8 (any
// general register, REX prefixes included), reads or sets the host's IRQL
// of the thread and resumes after the instruction. Any other privileged
// instruction in an image is a verifier failure naming its address and
// bytes. Faults that are not ours go to the handler installed before
// (AddressSanitizer's, say) or to the default action.
#pragma once

#include <cstdint>
#include <string>

namespace hostimg {

// Installs the fault handler (once per process) and makes host threads
// started from now on, and the calling one, carry their GS block.
void enableProcessorState();
// Sets the calling thread's GS base to its own block (idempotent).
void attachThread();
// False when the calling thread carries another thread's GS block.
bool ownsProcessorBlock();

} // namespace hostimg
