// How the signature printer asks a method's metadata for the name of a type token.
#pragma once

namespace velmark_3_11 {

class IDotNetTypeResolver {
public:
    /// Writes the name of `token` and its terminator into `buffer`, whose capacity in
    /// characters `*size` gives; with a null buffer only `*size` is set. True on success,
    /// `*size` then being the length plus 1.
    virtual bool resolveTypeName(unsigned int token, wchar_t* buffer, unsigned int* size) = 0;

protected:
    ~IDotNetTypeResolver() = default;
};

} // namespace velmark_3_11
