#include "table.h"

#include <algorithm>
#include <cstdio>

namespace jitreader_tool {

bool parseOutputFormat(const std::string& text, OutputFormat& format)
{
    if (text == "table")
        format = OutputFormat::table;
    else if (text == "csv")
        format = OutputFormat::csv;
    else if (text == "json")
        format = OutputFormat::json;
    else if (text == "jsonl")
        format = OutputFormat::jsonl;
    else
        return false;
    return true;
}

bool parseOutputFormat(const std::string& command, const std::string& text, std::ostream& err,
                       OutputFormat& format)
{
    if (parseOutputFormat(text, format))
        return true;
    err << "jitreader " << command << ": unknown format '" << text << "'\n";
    return false;
}

void Table::print(std::ostream& out, OutputFormat format) const
{
    switch (format) {
    case OutputFormat::table:
        printAligned(out);
        break;
    case OutputFormat::csv:
        printCsv(out);
        break;
    case OutputFormat::json:
    case OutputFormat::jsonl:
        printJson(out, format == OutputFormat::jsonl);
        break;
    }
}

void Table::printAligned(std::ostream& out) const
{
    std::vector<std::size_t> widths;
    for (const std::string& column : m_columns)
        widths.push_back(column.size());
    for (const auto& row : m_rows)
        for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());

    auto printRow = [&](const std::vector<std::string>& row) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size())
                line += std::string(widths[i] - row[i].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << "\n";
    };
    printRow(m_columns);
    for (const auto& row : m_rows)
        printRow(row);
}

void Table::printCsv(std::ostream& out) const
{
    auto printRow = [&](const std::vector<std::string>& row) {
        for (std::size_t i = 0; i < row.size(); ++i)
            out << (i ? "," : "") << csvField(row[i]);
        out << "\n";
    };
    printRow(m_columns);
    for (const auto& row : m_rows)
        printRow(row);
}

void Table::printJson(std::ostream& out, bool lines) const
{
    out << (lines ? "" : "[");
    for (std::size_t r = 0; r < m_rows.size(); ++r) {
        out << (lines ? "" : r ? ",\n " : "\n ") << "{";
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            const bool number = std::find(m_numeric.begin(), m_numeric.end(), m_columns[i]) != m_numeric.end();
            out << (i ? ", " : "") << jsonString(m_columns[i]) << ": "
                << (number ? m_rows[r][i] : jsonString(m_rows[r][i]));
        }
        out << (lines ? "}\n" : "}");
    }
    out << (lines ? "" : "\n]\n");
}

std::string validUtf8(const std::string& text)
{
    std::string result;
    std::size_t i = 0;
    while (i < text.size()) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        // Length, smallest value and lead bits of each sequence; overlong forms, surrogates and
        // values past U+10FFFF are no valid UTF-8.
        std::size_t length = lead < 0x80 ? 1 : (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3
                           : (lead & 0xF8) == 0xF0 ? 4 : 0;
        unsigned long value = length == 1 ? lead : length == 2 ? lead & 0x1F : length == 3 ? lead & 0x0F : lead & 0x07;
        for (std::size_t k = 1; k < length; ++k) {
            const unsigned char next = i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0;
            if ((next & 0xC0) != 0x80) {
                length = 0;
                break;
            }
            value = (value << 6) | (next & 0x3F);
        }
        const unsigned long smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (length == 0 || value < smallest[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
            result += "\xEF\xBF\xBD";
            ++i;
            continue;
        }
        result.append(text, i, length);
        i += length;
    }
    return result;
}

std::string jsonString(const std::string& text)
{
    std::string result = "\"";
    for (const char c : text) {
        switch (c) {
        case '"': result += "\\\""; break;
        case '\\': result += "\\\\"; break;
        case '\n': result += "\\n"; break;
        case '\t': result += "\\t"; break;
        case '\r': result += "\\r"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                result += escaped;
            } else {
                result += c;
            }
        }
    }
    return result + "\"";
}

std::string jsonStringOrNull(const std::string& text)
{
    return text.empty() ? "null" : jsonString(text);
}

std::string jsonNumberOrNull(unsigned long long value)
{
    return value == 0 ? "null" : std::to_string(value);
}

std::string csvField(const std::string& text)
{
    if (text.find_first_of(",\"\n\r") == std::string::npos)
        return text;
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"')
            result += '"';
        result += c;
    }
    return result + "\"";
}

std::string hex(unsigned long long value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", value);
    return text;
}

} // namespace jitreader_tool
