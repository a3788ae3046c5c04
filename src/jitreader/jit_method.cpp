#include "jitreader/jit_method.h"

namespace velmark_3_11 {

JitMethod::JitMethod()
    : m_info(new BaseMethodInfo),
      m_startJitRva(0),
      m_rawMethodId(0),
      m_rawParentId(0),
      m_loadTime(0),
      m_unloadTime(0),
      m_isInlined(false)
{
}

JitMethod::~JitMethod() = default;

boost::intrusive_ptr<ISourceFile> JitMethod::getSourceFile() const
{
    if (m_info->sourceFile.name().empty())
        return nullptr;
    return copySourceFile(m_info->sourceFile);
}

basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> JitMethod::getCodeRegions() const
{
    return basekit2::make_vector_iterator<boost::intrusive_ptr<ICodeRegion>>(m_regions);
}

velmark_error_t JitMethod::getVirtualAddress(unsigned long long jitRva, unsigned long long* address) const
{
    for (const auto& region : m_regions) {
        if (region->startJitRva() <= jitRva && jitRva - region->startJitRva() < region->length()) {
            *address = jitRva + region->startAddress() - region->startJitRva();
            return meSuccess;
        }
    }
    return meFail;
}

velmark_error_t JitMethod::getProcessId(unsigned long long jitRva, unsigned int* processId) const
{
    for (const auto& region : m_regions) {
        if (region->startJitRva() <= jitRva && jitRva - region->startJitRva() < region->length()) {
            *processId = region->processId();
            return meSuccess;
        }
    }
    return meFail;
}

void JitMethod::setSourceFile(const ISourceFile& file)
{
    m_info->sourceFile =
        SourceFile(file.getName(), file.getChecksum(), file.getChecksumType(), file.getLanguageType());
}

// TODO(jit_method): names, line number information, method ids.
void JitMethod::setClassName(const std::wstring&) {}
void JitMethod::setName(const std::wstring&) {}

velmark_error_t JitMethod::getLineNumberInfo(unsigned int, LineNumberEntry*, unsigned int*, unsigned long long)
{
    return meFail;
}

velmark_error_t JitMethod::getLineNumberRange(LineNumberEntry*, LineNumberEntry*, unsigned long long)
{
    return meFail;
}

boost::intrusive_ptr<ISourceLocation> JitMethod::getSourceLocation(unsigned long long) const
{
    return nullptr;
}

bool JitMethod::addLineNumberInfo(unsigned int, const std::vector<LineNumberEntry>&, const Range&)
{
    return false;
}

bool JitMethod::addLineNumberInfo(const LineNumberMap&)
{
    return true;
}

bool JitMethod::validateLineNumberInfo() const
{
    return !m_regions.empty();
}

void JitMethod::normalizeLineNumberInfoJitRvaRanges(unsigned long long) {}

void JitMethod::compareSymbolicInfoTo(const boost::intrusive_ptr<JitMethod>&) const {}

MethodId MethodIdMaker::makeMethodId(unsigned int, const JitMethod&) const
{
    return MethodId();
}

std::wostream& operator<<(std::wostream& stream, const MethodTag& tag)
{
    return stream << L"(method id = " << tag.method.getRawMethodId() << L", name = " << tag.method.getName()
                  << L", load time = " << tag.method.getLoadTime() << L")";
}

} // namespace velmark_3_11
