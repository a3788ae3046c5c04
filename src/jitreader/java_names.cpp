#include "jitreader/java_names.h"

#include <cstddef>
#include <stdexcept>

namespace velmark_3_11 {

namespace {

// A text that shows a comma, a dot, "[]" or a primitive type name right after "(" has been
// printed before, or was never a descriptor. One pass: this runs for every method of a trace.
bool isReadableJavaName(const std::string& text)
{
    static const char* const kPrintedFirstParameters[] = {"byte", "char",  "double",  "float", "int",
                                                          "long", "short", "boolean", "void"};
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ',' || c == '.' || (c == '[' && i + 1 < text.size() && text[i + 1] == ']'))
            return true;
        if (c != '(')
            continue;
        for (const char* type : kPrintedFirstParameters) {
            if (text.compare(i + 1, std::char_traits<char>::length(type), type) == 0)
                return true;
        }
    }
    return false;
}

void printJavaClassBody(const std::string& text, std::size_t& position, std::string& out);

// Prints the type at `position` and leaves `position` on its last character. Every access is
// range-checked: a truncated descriptor prints as far as it goes and the caller carries on.
void printJavaType(const std::string& text, std::size_t& position, std::string& out)
{
    try {
        switch (text.at(position)) {
        case '*':
            out += "?";
            break;
        case '+':
            out += "? extends ";
            ++position;
            printJavaType(text, position, out);
            break;
        case '-':
            out += "? super ";
            ++position;
            printJavaType(text, position, out);
            break;
        case ':':
            ++position;
            if (text.at(position) == ':') {
                out += " extends ";
                ++position;
            } else if (text.at(position - 2) == ';') {
                out += " & ";
            }
            printJavaType(text, position, out);
            break;
        case 'B': out += "byte"; break;
        case 'C': out += "char"; break;
        case 'D': out += "double"; break;
        case 'F': out += "float"; break;
        case 'I': out += "int"; break;
        case 'J': out += "long"; break;
        case 'S': out += "short"; break;
        case 'V': out += "void"; break;
        case 'Z': out += "boolean"; break;
        case 'L':
        case 'T':
            ++position;
            printJavaClassBody(text, position, out);
            break;
        case '[':
            ++position;
            printJavaType(text, position, out);
            out += "[]";
            break;
        default:
            break;
        }
    } catch (const std::out_of_range&) {
    }
}

// Prints a class name up to its ";", generic arguments included, and leaves `position` on the
// ";". Arguments are joined by "," without a blank, unlike parameters.
void printJavaClassBody(const std::string& text, std::size_t& position, std::string& out)
{
    try {
        while (text.at(position) != ';') {
            const char c = text.at(position);
            if (c == '/') {
                out += '.';
            } else if (c == '<') {
                out += '<';
                for (;;) {
                    ++position;
                    if (text.at(position) == '>')
                        break;
                    if (text.at(position - 1) != '<')
                        out += ',';
                    printJavaType(text, position, out);
                }
                // Back onto the last argument, so that the step below lands on the ">" again and
                // prints it as a plain character.
                --position;
            } else {
                out += c;
            }
            ++position;
        }
    } catch (const std::out_of_range&) {
    }
}

} // namespace

std::string formatJavaMethodName(const std::string& text)
{
    if (text.empty() || isReadableJavaName(text))
        return text;
    const std::size_t open = text.find('(');
    const std::size_t close = text.find(')');
    if (open == std::string::npos || close == std::string::npos)
        return text;

    // A generic declaration in front of the parameters is kept raw.
    std::string result = text.substr(0, open);
    // Deliberately `close` characters long, not `close - open`: the loop below stops at the ")"
    // anyway, and the return type behind it is dropped.
    const std::string rest = text.substr(open, close);
    result += '(';
    for (std::size_t i = 1; i < rest.size() && rest[i] != ')'; ++i) {
        if (i != 1)
            result += ", ";
        printJavaType(rest, i, result);
    }
    result += ')';
    return result;
}

std::string formatJavaClassName(const std::string& text)
{
    if (text.empty() || text.find('.') != std::string::npos)
        return text;
    // One of the two marks suffices, so a plain name that starts with "L" is printed as well.
    if (text.front() != 'L' && text.back() != ';')
        return text;
    std::string result;
    std::size_t position = 0;
    printJavaType(text, position, result);
    return result;
}

} // namespace velmark_3_11
