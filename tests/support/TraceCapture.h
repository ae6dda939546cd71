// Reading the driver's trace in tests (header only). The host kernel captures
// the debug output line by line during every test; these split a line:
//
//   "MME: (00007F3A1C2B4E80)     + MMEAdapter::start 0x0000561D2C3A9F10"
//    ^ prefix  ^ thread part    ^ indentation, then the message
//
// body = everything after "MME: (<thread>) ", indentation kept; message = the
// body without its leading blanks. A line without the prefix is its own body.
#pragma once

#include "host/kernel/HostKernel.h"

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace tracecap {

// Length of "MME: (<16 upper-case hex digits>) " when line starts with it, else 0.
inline size_t headerLength(const std::string& line) {
    const size_t open = 6, close = open + 16;
    if (line.compare(0, open, "MME: (") != 0 || line.size() < close + 2 || line[close] != ')' ||
        line[close + 1] != ' ')
        return 0;
    for (size_t i = open; i < close; ++i)
        if (!((line[i] >= '0' && line[i] <= '9') || (line[i] >= 'A' && line[i] <= 'F')))
            return 0;
    return close + 2;
}

inline std::vector<std::string> traceLines() {
    return hostk::capturedLines();
}
inline void clearTrace() {
    hostk::clearCaptured();
}
inline std::string body(const std::string& line) {
    return line.substr(headerLength(line));
}
// Number of blanks the body starts with (two per nesting level).
inline size_t indentOf(const std::string& line) {
    const std::string b = body(line);
    const size_t first = b.find_first_not_of(' ');
    return first == std::string::npos ? b.size() : first;
}
inline std::string message(const std::string& line) {
    return body(line).substr(indentOf(line));
}
// The 16 hex digits of the thread part, or "" when the line has none.
inline std::string threadOf(const std::string& line) {
    return headerLength(line) ? line.substr(6, 16) : std::string();
}

inline std::vector<std::string> traceBodies() {
    std::vector<std::string> out;
    for (const auto& line : traceLines())
        out.push_back(body(line));
    return out;
}
inline std::vector<std::string> traceMessages() {
    std::vector<std::string> out;
    for (const auto& line : traceLines())
        out.push_back(message(line));
    return out;
}

// Captured lines whose message is exactly text / starts with prefix.
inline size_t countLines(const std::string& text) {
    size_t n = 0;
    for (const auto& m : traceMessages())
        n += m == text;
    return n;
}
inline bool containsLine(const std::string& text) {
    return countLines(text) != 0;
}
inline size_t countLinesStartingWith(const std::string& prefix) {
    size_t n = 0;
    for (const auto& m : traceMessages())
        n += m.compare(0, prefix.size(), prefix) == 0;
    return n;
}
inline bool containsLineStartingWith(const std::string& prefix) {
    return countLinesStartingWith(prefix) != 0;
}
// Position of the first message equal to text at or after from; -1 if none.
inline long findLine(const std::string& text, size_t from = 0) {
    const std::vector<std::string> messages = traceMessages();
    for (size_t i = from; i < messages.size(); ++i)
        if (messages[i] == text)
            return (long)i;
    return -1;
}

// What a message does to the function traces open: +1 an entry, -1 a return.
inline int traceDepthChange(const std::string& message) {
    return message.compare(0, 2, "+ ") == 0 ? 1 : message.compare(0, 2, "- ") == 0 ? -1 : 0;
}

// Function traces opened minus those closed in the captured lines: 0 when
// every operation traced since the capture began has returned.
inline long openTraces() {
    long n = 0;
    for (const auto& m : traceMessages())
        n += traceDepthChange(m);
    return n;
}

// A pointer as the kernel's %p prints it: 16 upper-case hex digits.
inline std::string kernelPointer(const void* p) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%016llX", (unsigned long long)(uintptr_t)p);
    return buffer;
}
// All captured lines, one per line, for failure messages.
inline std::string dumpTrace() {
    std::string text;
    for (const auto& line : traceLines())
        text += line + "\n";
    return text;
}

} // namespace tracecap
