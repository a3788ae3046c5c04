// Turns the records of a jitdump file into .jit trace records: a load record per code load,
// and one more for each move of that code, with its line entries as a native-to-source table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "jitdump_reader.h"
#include "tracewriter/trace_writer.h"

namespace jitreader_tool {

/// What one conversion did.
struct JitdumpConversion {
    bool read = false;           ///< false when the file is no jitdump or its header is not whole
    std::uint32_t pid = 0;       ///< the process of the file header
    std::size_t loads = 0;       ///< code loads written
    std::size_t moves = 0;       ///< moves written as further loads
    std::size_t withLines = 0;   ///< of those, records with a line table
    std::size_t leftOut = 0;     ///< records and line tables left out, each one logged
    bool complete = true;        ///< false when the file ended inside a record or broke off
};

class JitdumpConverter {
public:
    /// Trace file contents by process id; a new one begins with its magic and collector frames.
    typedef std::map<std::uint32_t, tracewriter::TraceWriter> Traces;

    /// The longest text that a trace's string field keeps.
    static constexpr std::size_t kLongestText = 511;
    /// Writers that follow perf's ELF layout put line entries this far behind the code.
    static constexpr std::uint64_t kElfTextOffset = 0x40;

    /// Converts the jitdump bytes at `data`, appending to the trace of its process in `traces`.
    /// `name` names the file in the log, where every record left out is reported.
    static JitdumpConversion convert(const void* data, std::size_t size, const std::string& name, Traces& traces);

    /// kElfTextOffset when every readable line entry of the file lies at least that far behind
    /// its code's start, else 0: the distance between a line entry's address and the code it
    /// describes.
    static std::uint64_t lineAddressBias(const void* data, std::size_t size);

    /// The line entries `lines` of the code of `size` bytes at `address` as native-to-source
    /// rows, each up to the next entry's address, with entry addresses `bias` behind the code's
    /// offsets; of several entries at one address the last counts. Only rows in the first entry's
    /// file, which goes to `sourceFile`. False when an entry lies outside the code or names no
    /// clean file; `lines` must not be empty.
    static bool lineRows(const std::vector<JitdumpLineEntry>& lines, std::uint64_t address, std::uint64_t size,
                         std::uint64_t bias, std::string& sourceFile, std::vector<tracewriter::LineRow>& rows);

    /// `text` cut to at most `limit` bytes, at a boundary of UTF-8 characters.
    static std::string shortened(const std::string& text, std::size_t limit = kLongestText);
    /// True when `text` is well-formed UTF-8 without control characters.
    static bool isCleanText(const std::string& text);
};

} // namespace jitreader_tool
