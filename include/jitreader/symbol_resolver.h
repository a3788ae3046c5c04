// The main object of the library: reads trace directories and resolves jit rvas to methods.
#pragma once

#include <boost/intrusive_ptr.hpp>

#include "basekit2/generic_iterator.h"
#include "jitreader/base_object.h"
#include "jitreader/error.h"
#include "jitreader/export.h"
#include "jitreader/symbol.h"

namespace velmark_3_11 {

/// A file found by the analyser's locator.
class ISymbolFile : public BaseObject {
protected:
    ~ISymbolFile() override = default;

public:
    /// Not used by the library.
    virtual unsigned int getKind() const = 0;
    /// The file's path.
    virtual const wchar_t* getPath() const = 0;
};

/// Implemented by the analyser: finds the binary and debug file of a module.
class ISymbolFileLocator : public BaseObject {
protected:
    ~ISymbolFileLocator() override = default;

public:
    /// Fills `binary` and `debugFile` (null on entry) with what it found; the result is ignored.
    virtual velmark_error_t locate(const wchar_t* modulePath, boost::intrusive_ptr<ISymbolFile>& binary,
                                   boost::intrusive_ptr<ISymbolFile>& debugFile) = 0;
};

/// Reads every trace file of a set of directories at creation, then resolves jit rvas.
class JITREADER_API ISymbolResolver : public BaseObject {
protected:
    ~ISymbolResolver() override = default;

public:
    /// Name of a host id: stores null for an unknown id (also 0). meInvalidArgument when
    /// `name` is null.
    virtual velmark_error_t getHostName(unsigned int hostId, const wchar_t** name) = 0;
    /// The method whose code holds `jitRva`; null when none does.
    virtual boost::intrusive_ptr<ISymbol> resolveSymbol(unsigned long long jitRva) = 0;
    /// The jit rva of `address` in the process of the region that holds `jitRva`, as things
    /// stood when that region was loaded.
    virtual velmark_error_t resolveJitRvaByAddress(unsigned long long jitRva, unsigned long long address,
                                                   unsigned long long* result) = 0;
    /// All methods in order of arrival; the iterator must not outlive the resolver.
    virtual basekit2::generic_iterator_t<boost::intrusive_ptr<ISymbol>> getMethods() = 0;
    /// Translates an address of a method of a trace file to a jit rva. Method id 0 passes
    /// the address through unchanged.
    virtual velmark_error_t translateJitAddress(unsigned int rawMethodId, unsigned long long address,
                                                const wchar_t* jitFilePath, unsigned long long* result) = 0;

    /// Reads all trace files of `directories`, records of any bitness. Null when a path is
    /// no directory or a trace file name cannot be parsed.
    static boost::intrusive_ptr<ISymbolResolver> create(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                        boost::intrusive_ptr<ISymbolFileLocator>& locator);
    /// As above, reading only 32-bit records for farad32 and only 64-bit records otherwise.
    static boost::intrusive_ptr<ISymbolResolver> create(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                        boost::intrusive_ptr<ISymbolFileLocator>& locator,
                                                        velmark_arch arch);
};

} // namespace velmark_3_11
