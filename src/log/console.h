// The fixed texts that drive classes and the transport print, and the only way they print them:
// through the relay while there is one, otherwise as the C library does.
#pragma once

#include <cstdio>
#include <string>

namespace corvel {

// As std::fputs; `stream` is stdout or stderr.
void Print(std::FILE* stream, const std::string& text);

// As std::puts.
void PrintLine(const char* text);

// As std::perror.
void PrintReason(const char* text);

}  // namespace corvel
