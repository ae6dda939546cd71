// Assertion of the wave and topology miniports: reports the expression, the
// source file (without extension) and the line through the platform's
// assertion report and carries on. Callers still refuse the bad argument.
#pragma once

#include "../platform/platform.h"

#define MME_REPORT_ASSERT(expr, file)                                                              \
    do {                                                                                           \
        if (!(expr))                                                                               \
            RtlAssert((PVOID) #expr, (PVOID)(file), __LINE__, nullptr);                            \
    } while (0)
