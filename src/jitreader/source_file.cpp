#include "jitreader/source_file.h"

namespace velmark_3_11 {

boost::intrusive_ptr<ISourceFile> copySourceFile(const ISourceFile& file)
{
    return boost::intrusive_ptr<ISourceFile>(
        new SourceFile(file.getName(), file.getChecksum(), file.getChecksumType(), file.getLanguageType()));
}

} // namespace velmark_3_11
