#include "resolution.h"

#include <fstream>
#include <iostream>
#include <set>

#include <boost/filesystem/operations.hpp>

#include "platform/text.h"
#include "result_directories.h"
#include "symbol_directories.h"
#include "symbols.h"
#include "table.h"

using namespace velmark_3_11;

namespace jitreader_tool {

const char* statusName(PointStatus status)
{
    switch (status) {
    case PointStatus::resolved: return "resolved";
    case PointStatus::noCode: return "no-code";
    case PointStatus::unknownProcess: return "unknown-process";
    case PointStatus::unknownHost: return "unknown-host";
    case PointStatus::error: break;
    }
    return "error";
}

std::size_t Resolution::resolvedCount() const
{
    std::size_t resolved = 0;
    for (const ResolvedPoint& point : points)
        resolved += point.status == PointStatus::resolved;
    return resolved;
}

namespace {

int readSampleFile(const std::string& command, const std::string& path, std::vector<SamplePoint>& samples,
                   std::ostream& err)
{
    std::ifstream file;
    if (path != "-") {
        boost::system::error_code statusError;
        if (boost::filesystem::is_directory(path, statusError)) {
            err << "jitreader " << command << ": " << path << ": is a directory, not a file of sample points\n";
            return 1;
        }
        file.open(path);
        if (!file) {
            err << "jitreader " << command << ": cannot open " << path << "\n";
            return 1;
        }
    }
    std::istream& in = path == "-" ? std::cin : file;
    std::string error;
    if (!readSamples(in, samples, error)) {
        err << "jitreader " << command << ": " << path << ": " << error << "\n";
        return 1;
    }
    if (in.bad()) {
        err << "jitreader " << command << ": " << path << ": could not be read\n";
        return 1;
    }
    return 0;
}

} // namespace

std::vector<StackFrame> textFrames(const std::vector<FrameRef>& refs, bool fullNames)
{
    std::vector<StackFrame> frames;
    for (const FrameRef& ref : refs) {
        const ISymbol& symbol = *ref.symbol;
        const std::string fullName = fullNames ? toUtf8(symbol.getFullName()) : std::string();
        Frame text = frameOf(ref);
        frames.push_back(StackFrame{fullName.empty() ? qualifiedName(symbol) : fullName, moduleName(symbol),
                                    std::move(text.source), text.line, toUtf8(symbol.getClassName())});
    }
    return frames;
}

bool SampleResolver::open(const std::vector<std::string>& directories, bool lazy,
                          const std::vector<std::string>& symbolDirectories, const LoadProgress& progress)
{
    // The loader turns a sample point into a jit rva and reads a process only when a sample
    // names it; the resolver, which reads everything, turns the jit rva into the method.
    auto loaderDirectories = directoryIterator(directories);
    m_loader = IJitLoader::create(loaderDirectories);
    if (!lazy) {
        auto resolverDirectories = directoryIterator(directories);
        boost::intrusive_ptr<ISymbolFileLocator> locator = symbolLocator(symbolDirectories);
        m_resolver = createSymbolResolver(resolverDirectories, locator, progress);
    }
    auto registryDirectories = directoryIterator(directories);
    return m_loader && (lazy || m_resolver) && m_registry.scanDirectories(registryDirectories, 0) == meSuccess;
}

unsigned int SampleResolver::hostId(const std::string& host) const
{
    return m_registry.getHostId(toWide(host));
}

std::size_t SampleResolver::processCount() const
{
    std::size_t count = 0;
    for (const auto& host : m_registry.hosts())
        count += host.second.size();
    return count;
}

PointStatus SampleResolver::locate(unsigned long long time, unsigned long long address, unsigned int processId,
                                   unsigned int hostId, unsigned long long& jitRva, std::string& reason,
                                   std::string* module)
{
    const auto host = m_registry.hosts().find(hostId);
    if (hostId == 0 || host == m_registry.hosts().end()) {
        reason = "unknown host";
        return PointStatus::unknownHost;
    }
    if (host->second.count(processId) == 0) {
        reason = "no traces of this process";
        return PointStatus::unknownProcess;
    }
    // The loader and the registry number hosts alike: both sort the same directories.
    boost::intrusive_ptr<IModule> found;
    const velmark_error_t code = m_loader->resolveModule(time, address, processId, hostId, &jitRva, found);
    if (code == meFail) {
        reason = "no JIT code at this address and time";
        return PointStatus::noCode;
    }
    if (code != meSuccess) {
        reason = "the traces of this process could not be read (code " + std::to_string(code) + ")";
        return PointStatus::error;
    }
    if (module)
        *module = found ? toUtf8(found->getName()) : std::string();
    return PointStatus::resolved;
}

PointStatus SampleResolver::frameRefs(unsigned long long jitRva, std::vector<FrameRef>& frames, std::string& reason)
{
    const boost::intrusive_ptr<ISymbol> symbol = m_resolver ? m_resolver->resolveSymbol(jitRva) : nullptr;
    if (!symbol) {
        reason = "jit rva " + hex(jitRva) + " names no method";
        return PointStatus::error;
    }
    frameRefsAt(symbol, jitRva, frames);
    return PointStatus::resolved;
}

PointStatus SampleResolver::describe(unsigned long long jitRva, bool fullNames, std::string& module,
                                     std::vector<StackFrame>& frames, std::string& reason)
{
    std::vector<FrameRef> refs;
    const PointStatus status = frameRefs(jitRva, refs, reason);
    if (status == PointStatus::resolved) {
        module = moduleName(*refs.front().symbol);
        frames = textFrames(refs, fullNames);
    }
    return status;
}

ResolvedPoint SampleResolver::resolve(const SamplePoint& sample, unsigned int hostId, bool fullNames)
{
    ResolvedPoint point;
    point.sample = sample;
    point.status = locate(sample.time, sample.address, sample.processId, hostId, point.jitRva, point.reason,
                          lazy() ? &point.module : nullptr);
    if (point.status == PointStatus::resolved && !lazy())
        point.status = describe(point.jitRva, fullNames, point.module, point.frames, point.reason);
    return point;
}

int resolveSampleFile(const std::string& command, const std::vector<std::string>& directories,
                      const std::string& samplesPath, bool lazy, Resolution& result, std::ostream& err,
                      const std::vector<std::string>& symbolDirectories, bool fullNames,
                      const LoadProgress& progress)
{
    std::vector<SamplePoint> samples;
    if (const int code = readSampleFile(command, samplesPath, samples, err))
        return code;

    SampleResolver resolver;
    if (!resolver.open(directories, lazy, symbolDirectories, progress)) {
        err << "jitreader " << command << ": the result directories could not be read\n";
        return 1;
    }
    std::set<std::pair<unsigned int, unsigned int>> processesRead;
    for (const SamplePoint& sample : samples) {
        const unsigned int hostId = resolver.hostId(sample.host);
        result.points.push_back(resolver.resolve(sample, hostId, fullNames));
        if (result.points.back().status != PointStatus::unknownHost &&
            result.points.back().status != PointStatus::unknownProcess)
            processesRead.insert({hostId, sample.processId});
    }
    result.processesRead = processesRead.size();
    result.processesAll = resolver.processCount();
    return 0;
}

} // namespace jitreader_tool
