#include "jitreader/java_names.h"

namespace velmark_3_11 {

// TODO(java_names)
std::string formatJavaMethodName(const std::string& text)
{
    return text;
}

std::string formatJavaClassName(const std::string& text)
{
    return text;
}

} // namespace velmark_3_11
