// Assertion report for the adapter's sources: names the expression text,
// the source file "MMEAdapter" and a fixed line, then continues.
#pragma once

#include "../platform/platform.h"

#define MME_ADAPTER_ASSERT(cond, text, line)                                                       \
    do {                                                                                           \
        if (!(cond))                                                                               \
            RtlAssert((PVOID) "" text, (PVOID) "MMEAdapter", (line), nullptr);                     \
    } while (0)
