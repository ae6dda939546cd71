// Reading the driver's trace in tests. The host kernel captures the debug
// output line by line during every test (see host/kernel/HostKernel.h);
// these helpers split a captured line into its parts:
//
//   "MME: (00007F3A1C2B4E80)     + MMEAdapter::start 0x0000561D2C3A9F10"
//    ^ prefix  ^ thread part    ^ indentation, then the message
//
// "body" = everything after "MME: (<thread>) " (indentation kept);
// "message" = the body without its leading blanks. Lines printed without the
// "MME: (" prefix are their own body and message.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tracecap {

// Every captured line, prefix and thread part intact.
std::vector<std::string> traceLines();
void clearTrace();

// "MME: (<thread>) rest" -> "rest"; other lines unchanged.
std::string body(const std::string& line);
// body() without its leading blanks.
std::string message(const std::string& line);
// The 16 hex digits of the thread part, or "" when the line has none.
std::string threadOf(const std::string& line);
// Number of blanks the body starts with (two per nesting level).
size_t indentOf(const std::string& line);

// Bodies / messages of every captured line, in order.
std::vector<std::string> traceBodies();
std::vector<std::string> traceMessages();

// Captured lines whose message is exactly text.
size_t countLines(const std::string& text);
bool containsLine(const std::string& text);
// Captured lines whose message starts with prefix.
size_t countLinesStartingWith(const std::string& prefix);
bool containsLineStartingWith(const std::string& prefix);
// Position of the first message equal to text at or after from; -1 if none.
long findLine(const std::string& text, size_t from = 0);

// A pointer as the kernel's %p prints it: 16 upper-case hex digits.
std::string kernelPointer(const void* p);
// "MME: (<current thread>) ", the prefix of lines this thread prints.
std::string threadPrefix();
// All captured lines, one per line, for failure messages.
std::string dumpTrace();

} // namespace tracecap
