#include "Trace.h"
#include "MMEAdapterInfo.h"

namespace {

// Nesting depth of open function traces, shared by all threads. Changed only
// with interlocked operations; the indentation text itself is built per line
// on the caller's stack, so concurrent tracing never shares a buffer.
volatile LONG gDepth = 0;

LONG readDepth() {
    return InterlockedCompareExchange(&gDepth, 0, 0);
}

struct Indent {
    char text[2 * MME_TRACE_MAX_INDENT_LEVELS + 2];
    explicit Indent(LONG depth) {
        if (depth > MME_TRACE_MAX_INDENT_LEVELS)
            depth = MME_TRACE_MAX_INDENT_LEVELS;
        LONG n = 0;
        for (LONG i = 0; i < depth; ++i) {
            text[n++] = ' ';
            text[n++] = ' ';
        }
        text[n] = '\0';
    }
};

} // namespace

LONG TraceDepth() {
    return readDepth();
}

FunctionTrace::FunctionTrace(const char* name, const void* pointer) : mName(name) {
    if (!mName)
        return;
    Indent indent(readDepth());
    InterlockedIncrement(&gDepth);
    DbgPrint("MME: (%p) %s+ %s 0x%16p\n", KeGetCurrentThread(), indent.text, mName, pointer);
}

FunctionTrace::FunctionTrace(const char* name, ULONG value) : mName(name) {
    if (!mName)
        return;
    Indent indent(readDepth());
    InterlockedIncrement(&gDepth);
    DbgPrint("MME: (%p) %s+ %s 0x%08X\n", KeGetCurrentThread(), indent.text, mName, value);
}

FunctionTrace::~FunctionTrace() {
    if (!mName)
        return;
    Indent indent(InterlockedDecrement(&gDepth));
    DbgPrint("MME: (%p) %s- %s\n", KeGetCurrentThread(), indent.text, mName);
}

#define MME_VALUE_LINE(fmt, ...)                                                                   \
    do {                                                                                           \
        if (!mName)                                                                                \
            return;                                                                                \
        Indent indent(readDepth());                                                                \
        DbgPrint("MME: (%p) %s%s" fmt "\n", KeGetCurrentThread(), indent.text, __VA_ARGS__);       \
    } while (0)

void FunctionTrace::text(const char* text) const {
    MME_VALUE_LINE("", text);
}
void FunctionTrace::num(const char* text, LONG a) const {
    MME_VALUE_LINE(" %d", text, a);
}
void FunctionTrace::num(const char* text, LONG a, LONG b) const {
    MME_VALUE_LINE(" %d %d", text, a, b);
}
void FunctionTrace::num(const char* text, LONG a, LONG b, LONG c) const {
    MME_VALUE_LINE(" %d %d %d", text, a, b, c);
}
void FunctionTrace::num(const char* text, LONG a, LONG b, LONG c, LONG d) const {
    MME_VALUE_LINE(" %d %d %d %d", text, a, b, c, d);
}
void FunctionTrace::num(const char* text, LONG a, LONG b, LONG c, LONG d, LONG e) const {
    MME_VALUE_LINE(" %d %d %d %d %d", text, a, b, c, d, e);
}
void FunctionTrace::pointer(const char* text, const void* p) const {
    MME_VALUE_LINE(" 0x%16p", text, p);
}
void FunctionTrace::pointers(const char* text, const void* p1, const void* p2) const {
    MME_VALUE_LINE(" 0x%16p 0x%16p", text, p1, p2);
}
void FunctionTrace::hex(const char* text, ULONG v) const {
    MME_VALUE_LINE(" 0x%08X", text, v);
}
void FunctionTrace::hex(const char* text, ULONG v1, ULONG v2) const {
    MME_VALUE_LINE(" 0x%08X 0x%08X", text, v1, v2);
}

#undef MME_VALUE_LINE

void TraceLine(const char* text) {
    DbgPrint("MME: (%p) %s\n", KeGetCurrentThread(), text);
}
void TraceLine(const char* text, LONG a) {
    DbgPrint("MME: (%p) %s %d\n", KeGetCurrentThread(), text, a);
}
void TraceLine(const char* text, LONG a, LONG b) {
    DbgPrint("MME: (%p) %s %d %d\n", KeGetCurrentThread(), text, a, b);
}
void TraceLine(const char* text, LONG a, LONG b, LONG c) {
    DbgPrint("MME: (%p) %s %d %d %d\n", KeGetCurrentThread(), text, a, b, c);
}
void TraceLineConfig(const char* text, const ChannelConfig& c) {
    // Printed in the label's order: fr/inCH/inRes/outCH/outRes/config.
    DbgPrint("MME: (%p) %s %d %d %d %d %d %d\n", KeGetCurrentThread(), text, (LONG)c.fr,
             (LONG)c.inCH, (LONG)c.inRes, (LONG)c.outCH, (LONG)c.outRes, (LONG)c.config);
}
void TraceLineStatus(const char* text, NTSTATUS status) {
    DbgPrint("MME: (%p) %s 0x%X\n", KeGetCurrentThread(), text, (ULONG)status);
}
void TraceLinePointer(const char* text, const void* p) {
    DbgPrint("MME: (%p) %s 0x%16p\n", KeGetCurrentThread(), text, p);
}
void TraceLineGuid(const char* text, const GUID& g) {
    ULONG w1 = (ULONG)g.Data4[0] | ((ULONG)g.Data4[1] << 8) | ((ULONG)g.Data4[2] << 16) |
               ((ULONG)g.Data4[3] << 24);
    ULONG w2 = (ULONG)g.Data4[4] | ((ULONG)g.Data4[5] << 8) | ((ULONG)g.Data4[6] << 16) |
               ((ULONG)g.Data4[7] << 24);
    DbgPrint("MME: (%p) %s %X-%X-%X-%X-%X\n", KeGetCurrentThread(), text, (ULONG)g.Data1,
             (ULONG)g.Data2, (ULONG)g.Data3, w1, w2);
}
