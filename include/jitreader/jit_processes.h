// Lists the processes that have trace files, without reading any trace.
#pragma once

#include <boost/intrusive_ptr.hpp>

#include "basekit2/generic_iterator.h"
#include "jitreader/base_object.h"
#include "jitreader/export.h"

namespace velmark_3_11 {

/// Answers which processes have trace files in a set of directories.
class JITREADER_API IJitProcesses : public BaseObject {
public:
    ~IJitProcesses() override = default;

    /// Process ids of every host, hosts in id order; a process on two hosts occurs twice.
    virtual basekit2::generic_iterator_t<unsigned int> getProcessIds() = 0;

    /// Scans `directories`; null when a path is no directory or a trace file name cannot be
    /// parsed.
    static boost::intrusive_ptr<IJitProcesses> create(basekit2::generic_iterator_t<const wchar_t*>& directories);
};

} // namespace velmark_3_11
