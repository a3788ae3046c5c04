// Prints JVM descriptors and generic signatures as a Java programmer reads them.
#pragma once

#include <string>

namespace velmark_3_11 {

/// "run(ILjava/lang/String;)V" -> "run(int, java.lang.String)"; readable text stays as it is.
std::string formatJavaMethodName(const std::string& text);

/// "Ljava/lang/Object;" -> "java.lang.Object"; readable text stays as it is.
std::string formatJavaClassName(const std::string& text);

} // namespace velmark_3_11
