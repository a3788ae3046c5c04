#include "symbol_directories.h"

#include <boost/filesystem.hpp>

#include "platform/text.h"

using namespace velmark_3_11;

namespace jitreader_tool {
namespace {

class FoundFile : public ISymbolFile {
public:
    explicit FoundFile(const boost::filesystem::path& path) : m_path(path.wstring()) {}
    unsigned int getKind() const override { return 0; }
    const wchar_t* getPath() const override { return m_path.c_str(); }

private:
    std::wstring m_path;
};

} // namespace

velmark_error_t DirectoryLocator::locate(const wchar_t* modulePath, boost::intrusive_ptr<ISymbolFile>& binary,
                                         boost::intrusive_ptr<ISymbolFile>& debugFile)
{
    if (modulePath == nullptr)
        return meInvalidArgument;
    // Traces of Windows processes spell their paths with backslashes.
    std::wstring name = modulePath;
    const std::size_t slash = name.find_last_of(L"/\\");
    if (slash != std::wstring::npos)
        name.erase(0, slash + 1);
    if (name.empty())
        return meFail;
    boost::system::error_code error;
    for (const std::string& directory : m_directories) {
        const boost::filesystem::path candidate = boost::filesystem::path(directory) / name;
        if (!boost::filesystem::is_regular_file(candidate, error))
            continue;
        binary = new FoundFile(candidate);
        const boost::filesystem::path pdb = boost::filesystem::path(candidate).replace_extension(".pdb");
        if (boost::filesystem::is_regular_file(pdb, error))
            debugFile = new FoundFile(pdb);
        return meSuccess;
    }
    return meFail;
}

boost::intrusive_ptr<ISymbolFileLocator> symbolLocator(const std::vector<std::string>& directories)
{
    if (directories.empty())
        return nullptr;
    return new DirectoryLocator(directories);
}

} // namespace jitreader_tool
