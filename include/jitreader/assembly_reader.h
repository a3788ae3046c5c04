// Opens a .NET assembly and its debug file, and hands out the methods of its tokens.
#pragma once

#include <string>

#include <boost/intrusive_ptr.hpp>

#include "jitreader/base_object.h"
#include "jitreader/error.h"
#include "jitreader/export.h"

namespace velmark_3_11 {

class DotNetMethod;

class JITREADER_API IAssemblyReader : public BaseObject {
protected:
    ~IAssemblyReader() override = default;

public:
    /// A new method object for a metadata token on every call.
    virtual boost::intrusive_ptr<DotNetMethod> getMethod(unsigned int token) = 0;
    /// Builds a method for every method def of the assembly; `context` is not read.
    virtual void enumerateMethods(void* context) = 0;

    /// Opens `assemblyPath` with the debug file `pdbPath` (null: the assembly's path with
    /// "pdb" over the three characters behind its last dot). meInvalidArgument for a null
    /// assembly path, meFail when the assembly can't be opened; a missing debug file is no
    /// failure.
    static velmark_error_t create(const wchar_t* assemblyPath, const wchar_t* pdbPath,
                                  boost::intrusive_ptr<IAssemblyReader>& reader);
};

/// True when the assembly's framework attribute names .NET Core.
JITREADER_API bool isDotNetCore(const std::wstring& assemblyPath);
/// True when the portable debug file reader can load `pdbPath`.
JITREADER_API bool isDotNetCoreValidPdb(const std::wstring& pdbPath);

} // namespace velmark_3_11
