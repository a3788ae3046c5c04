// The analyser's symbol name demangler. This platform has none: create() yields null, and
// callers build names by hand.
#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

namespace NAMEKIT_3_30 {

/// Executable formats whose names the demangler knows; 2 stands for .NET.
enum exec_format_t { efNative = 0, efJava = 1, efDotNet = 2 };

class ISymbolNameDemangler {
public:
    virtual ~ISymbolNameDemangler() = default;
    virtual std::wstring getShortName() const = 0;
    virtual std::wstring getFullName(int flags) const = 0;

    /// A demangler for `name`, or null when it can't demangle it.
    static boost::shared_ptr<ISymbolNameDemangler> create(const std::wstring& name, exec_format_t format);
};

} // namespace NAMEKIT_3_30
