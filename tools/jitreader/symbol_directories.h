// A symbol file locator over directories named on the command line.
#pragma once

#include <string>
#include <vector>

#include "jitreader/jitreader.h"

namespace jitreader_tool {

/// Looks for a module's file name, and for that name with ".pdb" in place of its extension,
/// in each directory in turn; the first directory that has the module wins.
class DirectoryLocator : public velmark_3_11::ISymbolFileLocator {
public:
    explicit DirectoryLocator(std::vector<std::string> directories) : m_directories(std::move(directories)) {}
    velmark_3_11::velmark_error_t locate(const wchar_t* modulePath,
                                         boost::intrusive_ptr<velmark_3_11::ISymbolFile>& binary,
                                         boost::intrusive_ptr<velmark_3_11::ISymbolFile>& debugFile) override;

private:
    std::vector<std::string> m_directories;
};

/// The locator of `--symbols` directories; null when there are none.
boost::intrusive_ptr<velmark_3_11::ISymbolFileLocator> symbolLocator(const std::vector<std::string>& directories);

} // namespace jitreader_tool
