// Splitting captured trace lines into prefix, thread part, indentation and
// message.
#include "support/TraceCapture.h"

#include "host/kernel/HostKernel.h"

#include <cstdio>

namespace tracecap {

namespace {

const char kPrefix[] = "MME: (";
constexpr size_t kPrefixLength = sizeof kPrefix - 1;
constexpr size_t kThreadDigits = 16;

// Length of "MME: (<16 hex digits>) " when line starts with it, else 0.
size_t headerLength(const std::string& line) {
    if (line.compare(0, kPrefixLength, kPrefix) != 0)
        return 0;
    size_t close = kPrefixLength + kThreadDigits;
    if (line.size() < close + 2 || line[close] != ')' || line[close + 1] != ' ')
        return 0;
    for (size_t i = kPrefixLength; i < close; ++i) {
        char c = line[i];
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')))
            return 0;
    }
    return close + 2;
}

} // namespace

std::vector<std::string> traceLines() {
    return hostk::capturedLines();
}

void clearTrace() {
    hostk::clearCaptured();
}

std::string body(const std::string& line) {
    return line.substr(headerLength(line));
}

std::string message(const std::string& line) {
    std::string b = body(line);
    size_t first = b.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : b.substr(first);
}

std::string threadOf(const std::string& line) {
    return headerLength(line) ? line.substr(kPrefixLength, kThreadDigits) : std::string();
}

size_t indentOf(const std::string& line) {
    std::string b = body(line);
    size_t first = b.find_first_not_of(' ');
    return first == std::string::npos ? b.size() : first;
}

std::vector<std::string> traceBodies() {
    std::vector<std::string> out;
    for (const auto& line : traceLines())
        out.push_back(body(line));
    return out;
}

std::vector<std::string> traceMessages() {
    std::vector<std::string> out;
    for (const auto& line : traceLines())
        out.push_back(message(line));
    return out;
}

size_t countLines(const std::string& text) {
    size_t n = 0;
    for (const auto& line : traceLines())
        if (message(line) == text)
            ++n;
    return n;
}

bool containsLine(const std::string& text) {
    return countLines(text) != 0;
}

size_t countLinesStartingWith(const std::string& prefix) {
    size_t n = 0;
    for (const auto& line : traceLines())
        if (message(line).compare(0, prefix.size(), prefix) == 0)
            ++n;
    return n;
}

bool containsLineStartingWith(const std::string& prefix) {
    return countLinesStartingWith(prefix) != 0;
}

long findLine(const std::string& text, size_t from) {
    std::vector<std::string> lines = traceLines();
    for (size_t i = from; i < lines.size(); ++i)
        if (message(lines[i]) == text)
            return (long)i;
    return -1;
}

std::string kernelPointer(const void* p) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%016llX", (unsigned long long)(uintptr_t)p);
    return buffer;
}

std::string threadPrefix() {
    return "MME: (" + kernelPointer(KeGetCurrentThread()) + ") ";
}

std::string dumpTrace() {
    std::string text;
    for (const auto& line : traceLines())
        text += line + "\n";
    return text;
}

} // namespace tracecap
