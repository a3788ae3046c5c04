// The light-weight loader: reads a process's traces on first demand and tells modules apart.
#pragma once

#include <string>

#include <boost/intrusive_ptr.hpp>

#include "basekit2/generic_iterator.h"
#include "jitreader/base_object.h"
#include "jitreader/error.h"
#include "jitreader/export.h"
#include "jitreader/symbol.h"

namespace velmark_3_11 {

/// Tells whether a module is a native image or a mapping of JIT code.
class IModuleEvaluator : public BaseObject {
protected:
    ~IModuleEvaluator() override = default;

public:
    /// meSuccess when the module counts as a native image, meFail when not.
    virtual velmark_error_t isNativeImage() const = 0;
};

/// meSuccess when `path` names a native image or a JIT code mapping, meFail when not.
JITREADER_API velmark_error_t isNativeImage(const std::wstring& path);

/// Registers trace files at creation and reads a process's files, without code bytes, the
/// first time that the process is asked about.
class JITREADER_API IJitLoader : public BaseObject {
protected:
    ~IJitLoader() override = default;

public:
    /// Id of a host name: 0 for an unknown name. meInvalidArgument when `hostId` is null.
    virtual velmark_error_t getHostId(const wchar_t* hostName, unsigned int* hostId) = 0;
    /// Jit rva and module of a sample point.
    virtual velmark_error_t resolveModule(unsigned long long timestamp, unsigned long long address,
                                          unsigned int processId, unsigned int hostId,
                                          unsigned long long* jitRva, boost::intrusive_ptr<IModule>& module) = 0;
    /// The region loaded next, after `timestamp`, over the range [begin, end).
    virtual velmark_error_t findNextRegion(unsigned long long timestamp, unsigned long long begin,
                                           unsigned long long end, unsigned int processId, unsigned int hostId,
                                           boost::intrusive_ptr<ICodeRegion>& region) = 0;
    /// An evaluator of the module at `modulePath`; null for a null path.
    virtual boost::intrusive_ptr<IModuleEvaluator> createModuleEvaluator(const wchar_t* modulePath) = 0;

    /// Registers the trace files of `directories`; null when a path is no directory or a
    /// trace file name cannot be parsed. Reads nothing.
    static boost::intrusive_ptr<IJitLoader> create(basekit2::generic_iterator_t<const wchar_t*>& directories);
};

} // namespace velmark_3_11
