// Checks shared by the driver's object tests (header only).
#pragma once

#include "host/kernel/HostKernel.h"
#include "support/TraceCapture.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace checks {

inline LONG refs(IUnknown* object) {
    object->AddRef();
    return (LONG)object->Release();
}

// Every accepted id answers `self` with one more reference; every refused id
// answers null and STATUS_INVALID_PARAMETER and keeps the count.
inline void expectInterfaces(IUnknown* object, PVOID self,
                             std::initializer_list<const GUID*> accepted,
                             std::initializer_list<const GUID*> refused) {
    const LONG before = refs(object);
    for (const GUID* id : accepted) {
        PVOID out = nullptr;
        EXPECT_EQ(object->QueryInterface(*id, &out), STATUS_SUCCESS);
        EXPECT_EQ(out, self);
        EXPECT_EQ(refs(object), before + 1);
        if (out)
            object->Release();
    }
    for (const GUID* id : refused) {
        PVOID out = self;
        EXPECT_EQ(object->QueryInterface(*id, &out), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(refs(object), before);
    }
}

// Exactly one assertion report, with that expression (file and line when
// given); cleared, so the test can end clean.
inline void expectAssert(const std::string& expression, const char* file = nullptr,
                         unsigned line = 0) {
    auto reports = hostk::assertReports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].expression, expression);
    if (file) {
        EXPECT_EQ(reports[0].file, file);
    }
    if (line) {
        EXPECT_EQ(reports[0].line, line);
    }
    hostk::clearAssertReports();
}

// Every text is a captured trace message.
inline void expectLines(std::initializer_list<std::string> lines) {
    for (const std::string& line : lines)
        EXPECT_TRUE(tracecap::containsLine(line)) << line << "\n" << tracecap::dumpTrace();
}

} // namespace checks
