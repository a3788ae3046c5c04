// Rows of named text fields, printed as an aligned table, CSV or JSON.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace jitreader_tool {

enum class OutputFormat { table, csv, json, jsonl };

/// Parses "table", "csv", "json" or "jsonl" (JSON Lines: one object a line).
bool parseOutputFormat(const std::string& text, OutputFormat& format);
/// As parseOutputFormat, with a message naming `command` on `err` when the text is none of them.
bool parseOutputFormat(const std::string& command, const std::string& text, std::ostream& err,
                       OutputFormat& format);

class Table {
public:
    explicit Table(std::vector<std::string> columns) : m_columns(std::move(columns)) {}

    /// Marks the columns whose fields JSON writes as numbers; their fields must be decimal.
    Table& numeric(std::vector<std::string> columns)
    {
        m_numeric = std::move(columns);
        return *this;
    }
    /// Appends a row; it must have one field per column.
    void add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    std::size_t size() const { return m_rows.size(); }

    void print(std::ostream& out, OutputFormat format) const;

private:
    void printAligned(std::ostream& out) const;
    void printCsv(std::ostream& out) const;
    void printJson(std::ostream& out, bool lines) const;

    std::vector<std::string> m_columns;
    std::vector<std::string> m_numeric;
    std::vector<std::vector<std::string>> m_rows;
};

/// The text with every byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string validUtf8(const std::string& text);
/// The text as a JSON string literal, quotes included.
std::string jsonString(const std::string& text);
/// jsonString of the text, or null when it is empty.
std::string jsonStringOrNull(const std::string& text);
/// The number, or null when it is 0, meaning unknown.
std::string jsonNumberOrNull(unsigned long long value);
/// The text as a CSV field, quoted when it needs to be.
std::string csvField(const std::string& text);
/// "0x" and lower-case hexadecimal digits.
std::string hex(unsigned long long value);

} // namespace jitreader_tool
