// Sample points resolved to what the traces say of them: a status, and for resolved points
// the jit rva, the module and the frames from the method down to the innermost inline.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "jitreader/jitreader.h"
#include "jitreader/jit_files_manager.h"
#include "samples.h"
#include "symbols.h"

namespace jitreader_tool {

enum class PointStatus { resolved, noCode, unknownProcess, unknownHost, error };
constexpr int kPointStatusCount = 5;

/// "resolved", "no-code", "unknown-process", "unknown-host" or "error".
const char* statusName(PointStatus status);

/// One frame as text: the method, its module and the source line of the point in it.
struct StackFrame {
    std::string method;
    std::string module; ///< "" when unknown
    std::string source; ///< source file, "" when unknown
    unsigned int line = 0; ///< 0 when unknown
    std::string className = ""; ///< "" when the method has none
};

struct ResolvedPoint {
    SamplePoint sample;
    PointStatus status = PointStatus::error;
    std::string reason;               ///< why not, when not resolved
    unsigned long long jitRva = 0;    ///< when resolved
    std::string module;               ///< when resolved
    std::vector<StackFrame> frames;   ///< the method, then its inlines outermost first; empty with lazy
};

struct Resolution {
    std::vector<ResolvedPoint> points;
    std::size_t processesRead = 0; ///< processes whose traces a point made the loader read
    std::size_t processesAll = 0;  ///< processes with traces

    /// The points with the status resolved.
    std::size_t resolvedCount() const;
};

/// Frames as text; `fullNames` names methods with their parameter lists where known.
std::vector<StackFrame> textFrames(const std::vector<FrameRef>& refs, bool fullNames);

/// One set of result directories opened for resolving points, one after another or from
/// several threads at once.
class SampleResolver {
public:
    SampleResolver() = default;
    SampleResolver(const SampleResolver&) = delete;
    SampleResolver& operator=(const SampleResolver&) = delete;

    /// Opens `directories`: the loader, and unless `lazy` the resolver that reads them all,
    /// reporting that read through `progress`. False when the traces could not be registered.
    bool open(const std::vector<std::string>& directories, bool lazy,
              const std::vector<std::string>& symbolDirectories = {},
              const velmark_3_11::LoadProgress& progress = velmark_3_11::LoadProgress());

    /// The id of a host name; 0 when no trace names it.
    unsigned int hostId(const std::string& host) const;
    bool lazy() const { return !m_resolver; }

    /// The first step of a point: its status and, for resolved points, the jit rva; `reason`
    /// says why not. Lazily opened, `module` receives the module of a resolved point.
    PointStatus locate(unsigned long long time, unsigned long long address, unsigned int processId,
                       unsigned int hostId, unsigned long long& jitRva, std::string& reason,
                       std::string* module = nullptr);
    /// The second step, not lazily: the module and frames at a located jit rva. `error`
    /// (with `reason`) when no method holds it.
    PointStatus describe(unsigned long long jitRva, bool fullNames, std::string& module,
                         std::vector<StackFrame>& frames, std::string& reason);
    /// The second step as the library's objects: the frames at a located jit rva, outermost
    /// first; `error` (with `reason`) when no method holds it.
    PointStatus frameRefs(unsigned long long jitRva, std::vector<FrameRef>& frames, std::string& reason);
    /// Both steps for one point.
    ResolvedPoint resolve(const SamplePoint& sample, unsigned int hostId, bool fullNames);

    /// Processes with traces.
    std::size_t processCount() const;
    /// The registered trace files by host id and process id.
    const velmark_3_11::JitFilesManager& registry() const { return m_registry; }
    const velmark_3_11::ISymbolResolver* resolver() const { return m_resolver.get(); }
    velmark_3_11::ISymbolResolver* resolver() { return m_resolver.get(); }

private:
    boost::intrusive_ptr<velmark_3_11::IJitLoader> m_loader;
    boost::intrusive_ptr<velmark_3_11::ISymbolResolver> m_resolver;
    velmark_3_11::JitFilesManager m_registry;
};

/// Reads the sample points of `samplesPath` ('-' is standard input) and resolves them against
/// the traces of `directories`; with `lazy`, only to jit rva and module. Returns 0, or 1 with a
/// message naming `command` on `err`. .NET modules are looked for in `symbolDirectories`;
/// `fullNames` names methods with their parameter lists where the library has them.
int resolveSampleFile(const std::string& command, const std::vector<std::string>& directories,
                      const std::string& samplesPath, bool lazy, Resolution& result, std::ostream& err,
                      const std::vector<std::string>& symbolDirectories = {}, bool fullNames = false,
                      const velmark_3_11::LoadProgress& progress = velmark_3_11::LoadProgress());

} // namespace jitreader_tool
