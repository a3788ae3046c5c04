// Helpers of the end-to-end tests: result directories written with the trace writer, read
// through the exported factories only.
#pragma once

#include <string>
#include <vector>

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

/// Names of all methods of a resolver, in order.
inline std::vector<std::wstring> methodNames(velmark_3_11::ISymbolResolver& resolver)
{
    std::vector<std::wstring> names;
    for (auto it = resolver.getMethods(); !it.at_end(); it.next())
        names.push_back(it.current()->getName());
    return names;
}

} // namespace e2e
