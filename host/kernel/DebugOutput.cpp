// DbgPrint and RtlAssert on Linux: Windows-kernel formatting into a
// replaceable sink (stderr, file, in-memory capture, callback, nothing), and
// assertion reports that are recorded and let execution continue.
//
// DbgPrint is a Windows x64 variadic function: every argument, whatever its
// type, sits in its own 8-byte slot, and the format alone says how much of
// the slot is read. A %ld given a 64-bit value therefore prints its low 32
// bits here as on Windows, and the arguments after it stay where they were.
#include "HostKernelInternal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>

namespace {

enum class SinkKind { Stderr, File, Capture, Null, Callback };

struct OutputState {
    std::mutex mutex;
    SinkKind kind = SinkKind::Stderr;
    FILE* file = nullptr;
    std::function<void(const std::string&)> callback;
    bool echo = false; // capture also to stderr
    std::vector<std::string> lines;
    std::string partial;
    std::vector<hostk::AssertReport> asserts;
};

// Never destroyed: DPCs on the timer thread may still print during exit.
OutputState& state() {
    static OutputState* s = new OutputState;
    return *s;
}

void closeFileLocked(OutputState& s) {
    if (s.file) {
        std::fclose(s.file);
        s.file = nullptr;
    }
}

// ---- Formatting ----

struct Conversion {
    bool left = false;
    bool zero = false;
    bool plus = false;
    bool space = false;
    bool alt = false;
    int width = -1;
    int precision = -1;
};

void pad(std::string& out, const std::string& body, const Conversion& conv) {
    size_t width = conv.width > 0 ? (size_t)conv.width : 0;
    if (body.size() >= width) {
        out += body;
    } else if (conv.left) {
        out += body;
        out.append(width - body.size(), ' ');
    } else {
        out.append(width - body.size(), ' ');
        out += body;
    }
}

void appendInteger(std::string& out, uint64_t magnitude, bool negative, bool isSigned,
                   unsigned base, bool upper, const Conversion& conv) {
    const char* digitsOf = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string digits;
    if (!(magnitude == 0 && conv.precision == 0)) {
        uint64_t v = magnitude;
        do {
            digits.insert(digits.begin(), digitsOf[v % base]);
            v /= base;
        } while (v);
    }
    if (conv.precision > 0 && digits.size() < (size_t)conv.precision)
        digits.insert(0, (size_t)conv.precision - digits.size(), '0');

    std::string prefix;
    if (isSigned) {
        if (negative)
            prefix = "-";
        else if (conv.plus)
            prefix = "+";
        else if (conv.space)
            prefix = " ";
    }
    if (conv.alt && magnitude != 0) {
        if (base == 16)
            prefix += upper ? "0X" : "0x";
        else if (base == 8 && (digits.empty() || digits[0] != '0'))
            prefix += "0";
    }
    size_t width = conv.width > 0 ? (size_t)conv.width : 0;
    if (conv.zero && !conv.left && conv.precision < 0 && prefix.size() + digits.size() < width)
        digits.insert(0, width - prefix.size() - digits.size(), '0');
    pad(out, prefix + digits, conv);
}

// The kernel converts wide text to the ANSI code page; what has no
// single-byte form there prints as '?'. Only ASCII is taken as convertible.
std::string narrow(const WCHAR* text, size_t maxChars) {
    std::string s;
    for (size_t i = 0; i < maxChars && text[i]; ++i) {
        WCHAR c = text[i];
        s += c < 0x80 ? (char)c : '?';
    }
    return s;
}

// ANSI_STRING for %Z; the driver's headers have no need to declare it.
struct AnsiString {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
};

enum class Length { Default, Char, Short, Long32, Long64, Pointer, Wide, LongDouble };

// %S and %C are the wide forms in a narrow function, unless h says narrow;
// l and w make %s and %c wide.
bool isWide(char conversion, Length length) {
    if (conversion == 'S' || conversion == 'C')
        return length != Length::Short;
    return length == Length::Long32 || length == Length::Wide;
}

} // namespace

namespace hostk {

// The rules are those of the Windows C runtime's printf family ("Format
// specification syntax" and its size prefixes), which the kernel's DbgPrint
// follows, plus the kernel's %Z (ANSI_STRING) and %wZ (UNICODE_STRING) from
// the DbgPrint documentation.
std::string formatKernel(const char* format, __builtin_ms_va_list args, bool* wide) {
    std::string out;
    if (wide)
        *wide = false;
    if (!format)
        return out;
    // A Windows argument list is a plain pointer to the next slot, so the
    // copy is an assignment (g++ 12 at -O0 miscompiles __builtin_ms_va_copy
    // outside an ms_abi function).
    __builtin_ms_va_list ap = args;
    for (const char* f = format; *f; ++f) {
        if (*f != '%') {
            out += *f;
            continue;
        }
        const char* start = f++;
        Conversion conv;
        for (;; ++f) {
            if (*f == '-')
                conv.left = true;
            else if (*f == '0')
                conv.zero = true;
            else if (*f == '+')
                conv.plus = true;
            else if (*f == ' ')
                conv.space = true;
            else if (*f == '#')
                conv.alt = true;
            else
                break;
        }
        if (*f == '*') {
            conv.width = va_arg(ap, int);
            if (conv.width < 0) {
                conv.left = true;
                conv.width = -conv.width;
            }
            ++f;
        } else if (*f >= '0' && *f <= '9') {
            conv.width = 0;
            while (*f >= '0' && *f <= '9')
                conv.width = conv.width * 10 + (*f++ - '0');
        }
        if (*f == '.') {
            ++f;
            conv.precision = 0;
            if (*f == '*') {
                conv.precision = va_arg(ap, int);
                if (conv.precision < 0)
                    conv.precision = -1;
                ++f;
            } else {
                while (*f >= '0' && *f <= '9')
                    conv.precision = conv.precision * 10 + (*f++ - '0');
            }
        }
        // Windows sizes: long is 32 bits (so %ld, %lx, %lu read 4 bytes of the
        // slot); I64 and ll 64; I, z, t and j pointer-sized, 64 on x64; h and
        // w before c/s/C/S choose narrow and wide.
        Length length = Length::Default;
        if (f[0] == 'h' && f[1] == 'h') {
            length = Length::Char;
            f += 2;
        } else if (f[0] == 'h') {
            length = Length::Short; // also selects narrow %C/%S
            ++f;
        } else if (f[0] == 'l' && f[1] == 'l') {
            length = Length::Long64;
            f += 2;
        } else if (f[0] == 'l') {
            length = Length::Long32; // also selects wide %c/%s
            ++f;
        } else if (f[0] == 'I' && f[1] == '6' && f[2] == '4') {
            length = Length::Long64;
            f += 3;
        } else if (f[0] == 'I' && f[1] == '3' && f[2] == '2') {
            length = Length::Long32;
            f += 3;
        } else if (f[0] == 'I' || f[0] == 'z' || f[0] == 't' || f[0] == 'j') {
            length = Length::Pointer;
            ++f;
        } else if (f[0] == 'w') {
            length = Length::Wide;
            ++f;
        } else if (f[0] == 'L') {
            length = Length::LongDouble;
            ++f;
        }
        const char conversion = *f;
        if (!conversion) {
            out.append(start);
            break;
        }
        switch (conversion) {
        case 'd':
        case 'i': {
            int64_t v;
            if (length == Length::Long64 || length == Length::Pointer)
                v = va_arg(ap, long long);
            else if (length == Length::Short)
                v = (short)va_arg(ap, int);
            else if (length == Length::Char)
                v = (signed char)va_arg(ap, int);
            else
                v = va_arg(ap, int);
            uint64_t magnitude = v < 0 ? (uint64_t)0 - (uint64_t)v : (uint64_t)v;
            appendInteger(out, magnitude, v < 0, true, 10, false, conv);
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            uint64_t v;
            if (length == Length::Long64 || length == Length::Pointer)
                v = va_arg(ap, unsigned long long);
            else if (length == Length::Short)
                v = (unsigned short)va_arg(ap, unsigned);
            else if (length == Length::Char)
                v = (unsigned char)va_arg(ap, unsigned);
            else
                v = va_arg(ap, unsigned);
            unsigned base = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
            appendInteger(out, v, false, false, base, conversion == 'X', conv);
            break;
        }
        case 'p': {
            // The kernel prints a pointer as all 16 digits, upper case, no prefix.
            uintptr_t v = (uintptr_t)va_arg(ap, void*);
            char digits[17];
            std::snprintf(digits, sizeof digits, "%016llX", (unsigned long long)v);
            Conversion padding = conv;
            padding.zero = false;
            pad(out, digits, padding);
            break;
        }
        case 'c':
        case 'C': {
            std::string c;
            if (isWide(conversion, length)) {
                if (wide)
                    *wide = true;
                WCHAR w = (WCHAR)va_arg(ap, unsigned);
                WCHAR text[2] = {w, 0};
                c = w ? narrow(text, 1) : std::string(1, '\0');
            } else {
                c = std::string(1, (char)va_arg(ap, int));
            }
            pad(out, c, conv);
            break;
        }
        case 's':
        case 'S': {
            size_t limit = conv.precision >= 0 ? (size_t)conv.precision : SIZE_MAX;
            std::string s;
            if (isWide(conversion, length)) {
                if (wide)
                    *wide = true;
                const WCHAR* w = va_arg(ap, const WCHAR*);
                s = w ? narrow(w, limit) : std::string("(null)");
            } else {
                const char* n = va_arg(ap, const char*);
                if (!n)
                    s = "(null)";
                else
                    s.assign(n, strnlen(n, limit));
            }
            pad(out, s, conv);
            break;
        }
        case 'Z': {
            std::string s;
            if (length == Length::Wide) {
                if (wide)
                    *wide = true;
                const UNICODE_STRING* u = va_arg(ap, const UNICODE_STRING*);
                if (!u || !u->Buffer)
                    s = "(null)";
                else
                    s = narrow(u->Buffer, u->Length / 2);
            } else {
                const AnsiString* a = va_arg(ap, const AnsiString*);
                if (!a || !a->Buffer)
                    s = "(null)";
                else
                    s.assign(a->Buffer, strnlen(a->Buffer, a->Length));
            }
            pad(out, s, conv);
            break;
        }
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A': {
            std::string cspec = "%";
            if (conv.left)
                cspec += '-';
            if (conv.zero)
                cspec += '0';
            if (conv.plus)
                cspec += '+';
            if (conv.space)
                cspec += ' ';
            if (conv.alt)
                cspec += '#';
            if (conv.width >= 0)
                cspec += std::to_string(conv.width);
            if (conv.precision >= 0)
                cspec += "." + std::to_string(conv.precision);
            // long double is double on Windows, so %Lf reads a double too.
            char buffer[512];
            cspec += conversion;
            std::snprintf(buffer, sizeof buffer, cspec.c_str(), va_arg(ap, double));
            out += buffer;
            break;
        }
        case 'n':
            // Writing through the argument is disabled, as in the kernel.
            (void)va_arg(ap, void*);
            break;
        case '%':
            out += '%';
            break;
        default:
            out.append(start, f + 1);
            break;
        }
    }
    return out;
}

void setSinkStderr() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    closeFileLocked(s);
    s.kind = SinkKind::Stderr;
}

void setSinkFile(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f)
        throw std::runtime_error("cannot open debug output file '" + path +
                                 "': " + std::strerror(errno));
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    closeFileLocked(s);
    s.file = f;
    s.kind = SinkKind::File;
}

void setSinkCapture() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    closeFileLocked(s);
    s.kind = SinkKind::Capture;
    s.echo = std::getenv("MME_TRACE_ECHO") != nullptr;
}

void setSinkNull() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    closeFileLocked(s);
    s.kind = SinkKind::Null;
}

void setSinkCallback(std::function<void(const std::string& text)> sink) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    closeFileLocked(s);
    s.callback = std::move(sink);
    s.kind = s.callback ? SinkKind::Callback : SinkKind::Null;
}

std::vector<std::string> capturedLines() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.lines;
}

void clearCaptured() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.lines.clear();
    s.partial.clear();
}

std::vector<AssertReport> assertReports() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.asserts;
}

void clearAssertReports() {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.asserts.clear();
}

namespace detail {

// The sink is called with the output lock held, so texts of concurrent
// prints never interleave inside one text.
void writeToSink(const std::string& text) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    switch (s.kind) {
    case SinkKind::Stderr:
        std::fwrite(text.data(), 1, text.size(), stderr);
        break;
    case SinkKind::File:
        std::fwrite(text.data(), 1, text.size(), s.file);
        std::fflush(s.file);
        break;
    case SinkKind::Capture: {
        if (s.echo)
            std::fwrite(text.data(), 1, text.size(), stderr);
        size_t begin = 0;
        for (;;) {
            size_t end = text.find('\n', begin);
            if (end == std::string::npos) {
                s.partial.append(text, begin, std::string::npos);
                break;
            }
            s.partial.append(text, begin, end - begin);
            s.lines.push_back(std::move(s.partial));
            s.partial.clear();
            begin = end + 1;
        }
        break;
    }
    case SinkKind::Null:
        break;
    case SinkKind::Callback:
        s.callback(text);
        break;
    }
}

std::string assertProblems() {
    std::string text;
    for (const auto& a : assertReports())
        text += "assertion failed: " + a.expression + " (" + a.file + ", line " +
                std::to_string(a.line) + ")\n";
    return text;
}

} // namespace detail
} // namespace hostk

extern "C" {

ULONG NTAPI DbgPrint(PCSTR Format, ...) {
    hostk::detail::checkDriverThread(); // every trace line carries the thread
    hostk::detail::checkDriverStack(__builtin_return_address(0), __builtin_frame_address(0));
    __builtin_ms_va_list args;
    __builtin_ms_va_start(args, Format);
    bool wide = false;
    std::string text = hostk::formatKernel(Format, args, &wide);
    __builtin_ms_va_end(args);
    // The DbgPrint documentation: the Unicode conversions (%C, %S, %lc, %ls,
    // %wc, %ws, %wZ) may only be used at PASSIVE_LEVEL.
    if (wide && hostk::detail::currentIrql() != PASSIVE_LEVEL)
        hostk::detail::verifierFailure("DbgPrint with a Unicode conversion above PASSIVE_LEVEL: " +
                                       std::string(Format));
    hostk::detail::writeToSink(text);
    return STATUS_SUCCESS;
}

void NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PCHAR Message) {
    const char* expression = FailedAssertion ? (const char*)FailedAssertion : "(null)";
    const char* file = FileName ? (const char*)FileName : "(null)";
    {
        auto& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.asserts.push_back({expression, file, (unsigned)LineNumber});
    }
    std::string text = "*** Assertion failed: ";
    if (Message)
        text += Message;
    text += expression;
    text += "\n***   Source File: ";
    text += file;
    text += ", line " + std::to_string(LineNumber) + "\n";
    hostk::detail::writeToSink(text);
}

} // extern "C"

namespace hostk::detail {

std::string pointerText(const void* p) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%016llX", (unsigned long long)(uintptr_t)p);
    return buffer;
}

} // namespace hostk::detail
