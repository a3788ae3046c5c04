#include "dotnet_targets.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cwchar>
#include <string>
#include <vector>

#include "jitreader/clr_symreader.h"
#include "jitreader/dot_net_type_resolver.h"
#include "jitreader/signature_parser.h"
#include "quiet_log.h"

namespace jitreader_fuzz {
namespace {

using namespace velmark_3_11;

/// Names every other token, some of them too long for the parser's buffer.
class SomeNames : public IDotNetTypeResolver {
public:
    bool resolveTypeName(unsigned int token, wchar_t* buffer, unsigned int* size) override
    {
        if (token & 1)
            return false;
        const std::wstring name = (token & 2) ? std::wstring(600, L'N') : L"T" + std::to_wstring(token);
        if (buffer == nullptr || name.size() + 1 > *size)
            return false;
        wmemcpy(buffer, name.c_str(), name.size() + 1);
        *size = static_cast<unsigned int>(name.size() + 1);
        return true;
    }
};

} // namespace

int signature(const std::uint8_t* data, std::size_t size)
{
    SomeNames names;
    for (IDotNetTypeResolver* resolver : {static_cast<IDotNetTypeResolver*>(nullptr), static_cast<IDotNetTypeResolver*>(&names)}) {
        const boost::shared_ptr<ISignatureParser> parser = ISignatureParser::create(resolver);
        parser->parse(data, static_cast<unsigned int>(size));
        if (const wchar_t* text = parser->getReturnTypeName())
            (void)wcslen(text);
        unsigned int count = 0;
        if (parser->getParameters(nullptr, &count) != meSuccess || count > size)
            continue;
        std::vector<boost::shared_ptr<IParameter>> parameters(count);
        parser->getParameters(parameters.data(), &count);
        for (const auto& parameter : parameters)
            if (parameter)
                (void)wcslen(parameter->getTypeName());
    }
    return 0;
}

int clrSymReader(const std::uint8_t* data, std::size_t size)
{
    logEverythingQuietly();
    // The reader takes a path: the input becomes an anonymous file in memory.
    const int fd = memfd_create("pdb", 0);
    if (fd < 0)
        return 0;
    std::size_t written = 0;
    while (written < size) {
        const ssize_t n = write(fd, data + written, size - written);
        if (n <= 0)
            break;
        written += static_cast<std::size_t>(n);
    }
    const std::string text = "/proc/self/fd/" + std::to_string(fd);
    const std::wstring path(text.begin(), text.end());
    {
        CoreCLRSymbolReader reader(path.c_str());
        if (reader.load() == meSuccess) {
            for (int row = 0; row <= 32; ++row) {
                unsigned int line = 0;
                for (unsigned int offset : {0u, 1u, 6u, 0x10u})
                    reader.getLineNumber(row, offset, &line);
                std::string name;
                reader.getDocumentName(row, name);
            }
        }
    }
    close(fd);
    return 0;
}

} // namespace jitreader_fuzz
