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

std::vector<StackFrame> textFrames(const boost::intrusive_ptr<ISymbol>& symbol, unsigned long long jitRva,
                                   bool fullNames)
{
    std::vector<StackFrame> frames;
    for (const Frame& frame : framesAt(symbol, jitRva)) {
        const std::string fullName = fullNames ? toUtf8(frame.symbol->getFullName()) : std::string();
        frames.push_back(StackFrame{fullName.empty() ? qualifiedName(*frame.symbol) : fullName,
                                    moduleName(*frame.symbol), frame.source, frame.line});
    }
    return frames;
}

} // namespace

int resolveSampleFile(const std::string& command, const std::vector<std::string>& directories,
                      const std::string& samplesPath, bool lazy, Resolution& result, std::ostream& err,
                      const std::vector<std::string>& symbolDirectories, bool fullNames)
{
    std::vector<SamplePoint> samples;
    if (const int code = readSampleFile(command, samplesPath, samples, err))
        return code;

    // The loader turns a sample point into a jit rva and reads a process only when a sample
    // names it; the resolver, which reads everything, turns the jit rva into the method.
    auto loaderDirectories = directoryIterator(directories);
    const boost::intrusive_ptr<IJitLoader> loader = IJitLoader::create(loaderDirectories);
    boost::intrusive_ptr<ISymbolResolver> resolver;
    if (!lazy) {
        auto resolverDirectories = directoryIterator(directories);
        boost::intrusive_ptr<ISymbolFileLocator> locator = symbolLocator(symbolDirectories);
        resolver = ISymbolResolver::create(resolverDirectories, locator);
    }
    JitFilesManager registry;
    auto registryDirectories = directoryIterator(directories);
    if (!loader || (!lazy && !resolver) || registry.scanDirectories(registryDirectories, 0) != meSuccess) {
        err << "jitreader " << command << ": the result directories could not be read\n";
        return 1;
    }

    std::set<std::pair<unsigned int, unsigned int>> processesRead;
    for (const SamplePoint& sample : samples) {
        ResolvedPoint point;
        point.sample = sample;
        unsigned int hostId = 0;
        loader->getHostId(toWide(sample.host).c_str(), &hostId);
        const auto host = registry.hosts().find(hostId);
        if (hostId == 0 || host == registry.hosts().end()) {
            point.status = PointStatus::unknownHost;
            point.reason = "unknown host";
        } else if (host->second.count(sample.processId) == 0) {
            point.status = PointStatus::unknownProcess;
            point.reason = "no traces of this process";
        } else {
            processesRead.insert({hostId, sample.processId});
            boost::intrusive_ptr<IModule> module;
            const velmark_error_t code =
                loader->resolveModule(sample.time, sample.address, sample.processId, hostId, &point.jitRva, module);
            if (code == meFail) {
                point.status = PointStatus::noCode;
                point.reason = "no JIT code at this address and time";
            } else if (code != meSuccess) {
                point.reason = "the traces of this process could not be read (code " + std::to_string(code) + ")";
            } else if (!resolver) {
                point.status = PointStatus::resolved;
                point.module = toUtf8(module->getName());
            } else if (const boost::intrusive_ptr<ISymbol> symbol = resolver->resolveSymbol(point.jitRva)) {
                point.status = PointStatus::resolved;
                point.module = moduleName(*symbol);
                point.frames = textFrames(symbol, point.jitRva, fullNames);
            } else {
                point.reason = "jit rva " + hex(point.jitRva) + " names no method";
            }
        }
        result.points.push_back(std::move(point));
    }
    result.processesRead = processesRead.size();
    for (const auto& host : registry.hosts())
        result.processesAll += host.second.size();
    return 0;
}

} // namespace jitreader_tool
