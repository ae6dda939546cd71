// Trace output on the kernel debug output: the scoped FunctionTrace (entry
// line, indented value lines, exit line) and unindented TraceLine forms, all
// prefixed "MME: (<thread>)". Unconditional; callable at any IRQL up to
// dispatch level; allocates nothing.
#pragma once

#include "../platform/platform.h"

struct ChannelConfig;

class FunctionTrace {
public:
    // A null name makes the trace silent: no lines, no change of depth.
    FunctionTrace(const char* name, const void* pointer);
    FunctionTrace(const char* name, ULONG value);
    ~FunctionTrace();

    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;

    void text(const char* text) const;
    void num(const char* text, LONG a) const;
    void num(const char* text, LONG a, LONG b) const;
    void num(const char* text, LONG a, LONG b, LONG c) const;
    void num(const char* text, LONG a, LONG b, LONG c, LONG d) const;
    void num(const char* text, LONG a, LONG b, LONG c, LONG d, LONG e) const;
    void pointer(const char* text, const void* p) const;
    void pointers(const char* text, const void* p1, const void* p2) const;
    void hex(const char* text, ULONG v) const;
    void hex(const char* text, ULONG v1, ULONG v2) const;

private:
    const char* mName;
};

// Unindented single lines.
void TraceLine(const char* text);
void TraceLine(const char* text, LONG a);
void TraceLine(const char* text, LONG a, LONG b);
void TraceLine(const char* text, LONG a, LONG b, LONG c);
void TraceLineConfig(const char* text, const ChannelConfig& config);
void TraceLineStatus(const char* text, NTSTATUS status);
void TraceLinePointer(const char* text, const void* p);
void TraceLineGuid(const char* text, const GUID& guid);

// Deepest nesting that is still indented; deeper levels print at this depth
// so the indentation always fits its 256-character line buffer.
constexpr LONG MME_TRACE_MAX_INDENT_LEVELS = 127;

// Current nesting depth (for tests and diagnostics).
LONG TraceDepth();
