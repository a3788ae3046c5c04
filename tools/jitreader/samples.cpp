#include "samples.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>

namespace jitreader_tool {

std::string samplesName(const std::string& path)
{
    return path == "-" ? "standard input" : path.substr(path.find_last_of('/') + 1);
}

bool parseNumber(const std::string& text, unsigned long long& value)
{
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* begin = text.c_str() + (hex ? 2 : 0);
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(begin, &end, hex ? 16 : 10);
    return errno == 0 && end != begin && *end == '\0';
}

bool readSamples(std::istream& in, std::vector<SamplePoint>& samples, std::string& error)
{
    std::string text;
    unsigned int lineNumber = 0;
    while (std::getline(in, text)) {
        ++lineNumber;
        std::istringstream fields(text);
        std::string time, address, pid, host, extra;
        if (!(fields >> time) || time[0] == '#')
            continue;
        SamplePoint sample;
        sample.line = lineNumber;
        unsigned long long processId = 0;
        if (!(fields >> address >> pid >> host) || (fields >> extra)) {
            error = "line " + std::to_string(lineNumber) + ": expected TIME ADDRESS PID HOST";
            return false;
        }
        if (!parseNumber(time, sample.time) || !parseNumber(address, sample.address) ||
            !parseNumber(pid, processId) || processId > std::numeric_limits<unsigned int>::max()) {
            // A line may be of any length; the message quotes its beginning.
            const std::size_t kQuoted = 80;
            const std::string quoted = text.size() <= kQuoted ? text : text.substr(0, kQuoted) + "...";
            error = "line " + std::to_string(lineNumber) + ": not a number in '" + quoted + "'";
            return false;
        }
        sample.processId = static_cast<unsigned int>(processId);
        sample.host = host;
        samples.push_back(sample);
    }
    return true;
}

} // namespace jitreader_tool
