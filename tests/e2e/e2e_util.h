// Helpers of the end-to-end tests: result directories written with the trace writer, read
// through the exported factories only.
#pragma once

#include <string>
#include <vector>

#include <Zydis/Zydis.h>

#include "jitreader/jitreader.h"
#include "support/temp_dir.h"
#include "tracewriter/trace_writer.h"

namespace e2e {

/// x86-64 code of `size` bytes: push rbp; mov rbp, rsp; nops; pop rbp; ret.
inline tracewriter::Bytes code(std::uint32_t size)
{
    tracewriter::Bytes bytes{0x55, 0x48, 0x89, 0xE5};
    bytes.resize(size > 6 ? size - 2 : 4, 0x90);
    bytes.push_back(0x5D);
    bytes.push_back(0xC3);
    bytes.resize(size);
    return bytes;
}

/// A form 4 load record of one region with a line per 16 bytes starting at `firstLine`.
inline tracewriter::MethodLoad method(std::uint32_t rawId, std::uint64_t address, std::uint32_t size,
                                     std::uint64_t loadTime, const std::string& name,
                                     std::uint32_t firstLine = 10)
{
    tracewriter::MethodLoad record;
    record.rawMethodId = rawId;
    record.loadTime = loadTime;
    record.ranges.push_back({address, size, code(size)});
    record.modulePath = "/opt/app/app.dll";
    record.moduleArch = 1;
    record.methodName = name;
    record.className = "App.Main";
    record.sourceFile = "Main.cs";
    for (std::uint32_t offset = 0; offset < size; offset += 16)
        record.nativeToSource.push_back({offset, std::min(size, offset + 16), firstLine + offset / 16});
    return record;
}

/// Offset of the first byte that does not decode as x86-64, or `size` when all do.
inline std::size_t firstUndecodable(const unsigned char* bytes, std::size_t size)
{
    ZydisDecoder decoder;
    ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    ZydisDecodedInstruction instruction;
    for (std::size_t at = 0; at < size; at += instruction.length)
        if (!ZYAN_SUCCESS(ZydisDecoderDecodeInstruction(&decoder, nullptr, bytes + at, size - at, &instruction)))
            return at;
    return size;
}

/// A directory iterator over paths of `dir`.
inline basekit2::generic_iterator_t<const wchar_t*> dirs(const jrtest::TempDir& root,
                                                        const std::vector<std::string>& relative)
{
    std::vector<std::wstring> paths;
    for (const std::string& path : relative)
        paths.push_back(root.wide(path));
    return basekit2::make_path_iterator(paths);
}

inline boost::intrusive_ptr<velmark_3_11::ISymbolResolver> resolverOf(
    basekit2::generic_iterator_t<const wchar_t*> directories)
{
    boost::intrusive_ptr<velmark_3_11::ISymbolFileLocator> locator;
    return velmark_3_11::ISymbolResolver::create(directories, locator);
}

inline boost::intrusive_ptr<velmark_3_11::IJitLoader> loaderOf(
    basekit2::generic_iterator_t<const wchar_t*> directories)
{
    return velmark_3_11::IJitLoader::create(directories);
}

/// A trace of a magic frame and 64-bit form 4 load records.
inline tracewriter::TraceWriter trace(const std::vector<tracewriter::MethodLoad>& records)
{
    tracewriter::TraceWriter writer;
    writer.magic();
    for (const tracewriter::MethodLoad& record : records)
        writer.load(tracewriter::kFunctionLoad64_v3, record);
    return writer;
}

/// Files written under a fresh root, and a resolver and a loader over some of its directories.
struct Results {
    explicit Results(const std::vector<std::pair<std::string, tracewriter::Bytes>>& files,
                     const std::vector<std::string>& directories = {"d"})
    {
        for (const auto& file : files)
            root.write(file.first, file.second);
        resolver = resolverOf(dirs(root, directories));
        loader = loaderOf(dirs(root, directories));
    }
    jrtest::TempDir root;
    boost::intrusive_ptr<velmark_3_11::ISymbolResolver> resolver;
    boost::intrusive_ptr<velmark_3_11::IJitLoader> loader;
};

/// Names of all methods of a resolver, in order.
inline std::vector<std::wstring> methodNames(velmark_3_11::ISymbolResolver& resolver)
{
    std::vector<std::wstring> names;
    for (auto it = resolver.getMethods(); !it.at_end(); it.next())
        names.push_back(it.current()->getName());
    return names;
}

struct Frame { std::wstring name; unsigned int rawId; unsigned int line; };

/// The method at `jitRva` and the methods inlined there, outermost first, with their lines.
inline std::vector<Frame> framesAt(velmark_3_11::ISymbolResolver& resolver, unsigned long long jitRva)
{
    std::vector<Frame> frames;
    boost::intrusive_ptr<velmark_3_11::ISymbol> symbol = resolver.resolveSymbol(jitRva);
    boost::intrusive_ptr<velmark_3_11::ICodeRegion> region;
    if (symbol)
        for (auto it = symbol->getCodeRegions(); !it.at_end(); it.next())
            if (it.current()->startJitRva() <= jitRva && jitRva - it.current()->startJitRva() < it.current()->length())
                region = it.current();
    for (std::size_t depth = 0; symbol && depth < 64; ++depth) {
        const auto location = symbol->getSourceLocation(jitRva);
        frames.push_back({symbol->getName(), symbol->getRawMethodId(), location ? location->getLine() : 0});
        symbol = region ? region->getInlinedMethod(jitRva) : nullptr;
        region = region ? region->getInlinedRegion(jitRva) : nullptr;
    }
    return frames;
}

/// What the loader and the resolver say of a sample point of host 1.
struct Answer {
    velmark_3_11::velmark_error_t loader;
    unsigned long long jitRva;
    bool resolved; // by the resolver, back to the same address
    std::wstring name;
};

inline Answer answer(velmark_3_11::IJitLoader& loader, velmark_3_11::ISymbolResolver& resolver,
                     unsigned long long time, unsigned long long address, unsigned int pid)
{
    Answer a{velmark_3_11::meFail, 0, false, L""};
    boost::intrusive_ptr<velmark_3_11::IModule> module;
    a.loader = loader.resolveModule(time, address, pid, 1, &a.jitRva, module);
    if (auto symbol = resolver.resolveSymbol(a.jitRva)) {
        unsigned long long back = 0;
        a.resolved = symbol->getVirtualAddress(a.jitRva, &back) == velmark_3_11::meSuccess && back == address;
        a.name = symbol->getName();
    }
    return a;
}

} // namespace e2e
