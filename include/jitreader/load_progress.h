// Progress of a resolver's first read of its trace files, for programs that show it.
#pragma once

#include <boost/intrusive_ptr.hpp>

#include "basekit2/generic_iterator.h"
#include "jitreader/export.h"
#include "jitreader/symbol_resolver.h"

namespace velmark_3_11 {

/// Called on the reading thread once before the first file and after every file: `done` bytes
/// of trace files read so far out of `total`. It must not call back into the object being made.
typedef void (*load_progress_t)(unsigned long long done, unsigned long long total, void* context);

/// A progress callback and the context handed to it; a null callback reports nothing.
struct LoadProgress {
    load_progress_t callback = nullptr;
    void* context = nullptr;
};

/// As ISymbolResolver::create(directories, locator), reporting its read through `progress`.
JITREADER_API boost::intrusive_ptr<ISymbolResolver>
createSymbolResolver(basekit2::generic_iterator_t<const wchar_t*>& directories,
                     boost::intrusive_ptr<ISymbolFileLocator>& locator, const LoadProgress& progress);

} // namespace velmark_3_11
