// The agent's trace file: HOST.PID.jit in the directory it was given, written under one lock
// through a buffer, so that callbacks on many threads only append whole records.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

#include "tracewriter/trace_writer.h"

namespace jitagent {

class TraceFile {
public:
    TraceFile() = default;
    ~TraceFile();
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    /// The file name of a process: "HOST.PID.jit".
    static std::string fileName(const std::string& host, unsigned long pid);

    /// Creates (or truncates) `path`, after closing the file open before, and writes the
    /// stream's opening frames; false with `error` set when the file can't be created.
    bool open(const std::string& path, std::string& error);
    /// Appends whole frames; false once a write has failed or the file is closed.
    bool append(const tracewriter::Bytes& frames);
    /// Writes out what is buffered.
    void flush();
    /// Flushes and closes; later appends are refused.
    void close();

private:
    std::mutex m_mutex;
    std::FILE* m_file = nullptr;
    bool m_failed = false;
};

} // namespace jitagent
