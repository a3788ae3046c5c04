#include "jitreader/java_names.h"

#include <gtest/gtest.h>

namespace velmark_3_11 {
namespace {

struct NameCase {
    bool method; // formatJavaMethodName, else formatJavaClassName
    const char* text;
    const char* expected;
};

TEST(JavaNames, PrintsDescriptorsAndLeavesReadableTextAlone)
{
    const NameCase cases[] = {
        {true, "run(ILjava/lang/String;)V", "run(int, java.lang.String)"},
        {true, "m([[JZBCDFS)V", "m(long[][], boolean, byte, char, double, float, short)"},
        {true, "put(Ljava/util/Map<Ljava/lang/String;Ljava/lang/Integer;>;)Z",
         "put(java.util.Map<java.lang.String,java.lang.Integer>)"},
        {true, "f(Ljava/util/List<+Ljava/lang/Number;>;)V", "f(java.util.List<? extends java.lang.Number>)"},
        {true, "f(Ljava/util/List<-Ljava/lang/Number;>;)V", "f(java.util.List<? super java.lang.Number>)"},
        {true, "f(Ljava/util/List<*>;)V", "f(java.util.List<?>)"},
        {true, "g(TT;)V", "g(T)"}, {true, "h()V", "h()"}, {true, "(I)V", "(int)"},
        {true, "<T:Ljava/lang/Object;>id(TT;)TT;", "<T:Ljava/lang/Object;>id(T)"},
        {true, "run", "run"}, {true, "run(int)", "run(int)"}, {true, "a.b(I)V", "a.b(I)V"},
        {true, "f(Ljava/lang/Str", "f(Ljava/lang/Str"},
        {true, "f(Ljava/lang/Str)V", "f(java.lang.Str))"},
        {false, "Ljava/lang/Object;", "java.lang.Object"},
        {false, "Ljava/util/Map<Ljava/lang/String;[I>;", "java.util.Map<java.lang.String,int[]>"},
        {false, "Lookup", "ookup"},
        {false, "Lpkg/Gen<", "pkg.Gen<"},
        {false, "[I", "[I"}, {false, "", ""}, {false, "java/lang/Object", "java/lang/Object"},
        {false, "java.lang.Object;", "java.lang.Object;"},
    };
    for (const NameCase& c : cases) {
        const std::string actual = c.method ? formatJavaMethodName(c.text) : formatJavaClassName(c.text);
        EXPECT_EQ(actual, c.expected) << (c.method ? "method " : "class ") << c.text;
    }
}

} // namespace
} // namespace velmark_3_11
