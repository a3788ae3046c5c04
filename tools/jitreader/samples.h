// Sample points read from a text file: one per line, "TIME ADDRESS PID HOST", numbers in
// decimal or hexadecimal with 0x; blank lines and lines starting with '#' are skipped.
#pragma once

#include <istream>
#include <string>
#include <vector>

namespace jitreader_tool {

struct SamplePoint {
    unsigned long long time = 0;
    unsigned long long address = 0;
    unsigned int processId = 0;
    std::string host;
    unsigned int line = 0; // line number in the file
};

/// Reads all points; on a malformed line stores a message naming the line and returns false.
bool readSamples(std::istream& in, std::vector<SamplePoint>& samples, std::string& error);

/// The name of a sample file for titles: its last path component, or "standard input" for '-'.
std::string samplesName(const std::string& path);

/// Parses a decimal or 0x-prefixed hexadecimal number that must fill the whole text.
bool parseNumber(const std::string& text, unsigned long long& value);

} // namespace jitreader_tool
