#include "options.h"

#include <iomanip>
#include <limits>

#include "samples.h"

namespace jitreader_tool {

OptionParser::OptionParser(std::string command, std::string operands, std::string summary)
    : m_command(std::move(command)), m_operands(std::move(operands)), m_summary(std::move(summary))
{
    flag("help", "show this help and exit");
}

OptionParser& OptionParser::flag(const std::string& name, const std::string& help)
{
    m_order.push_back(name);
    m_declarations[name] = Declaration{"", help};
    return *this;
}

OptionParser& OptionParser::option(const std::string& name, const std::string& valueName, const std::string& help)
{
    m_order.push_back(name);
    m_declarations[name] = Declaration{valueName, help};
    return *this;
}

OptionParser& OptionParser::shortName(char letter, const std::string& name)
{
    m_shortNames[std::string("-") + letter] = name;
    return *this;
}

OptionParser& OptionParser::example(const std::string& commandLine)
{
    m_examples.push_back(commandLine);
    return *this;
}

bool OptionParser::parse(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto shortName = m_shortNames.find(args[i]);
        const std::string arg = optionsEnded || shortName == m_shortNames.end() ? args[i] : "--" + shortName->second;
        if (optionsEnded || arg == "-" || arg.empty() || arg[0] != '-') {
            m_positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            // What follows are operands, also where they begin with "-".
            optionsEnded = true;
            continue;
        }
        if (arg == "-h") {
            printHelp(out);
            m_exitCode = 0;
            return false;
        }
        if (arg.compare(0, 2, "--") != 0) {
            err << "jitreader " << m_command << ": unknown option " << arg << "\n";
            m_exitCode = kUsageError;
            return false;
        }
        std::string name = arg.substr(2);
        std::string value;
        bool hasValue = false;
        const std::size_t equals = name.find('=');
        if (equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
            hasValue = true;
        }
        const auto declaration = m_declarations.find(name);
        if (declaration == m_declarations.end()) {
            err << "jitreader " << m_command << ": unknown option --" << name << "\n";
            m_exitCode = kUsageError;
            return false;
        }
        if (name == "help") {
            printHelp(out);
            m_exitCode = 0;
            return false;
        }
        if (declaration->second.valueName.empty()) {
            if (hasValue) {
                err << "jitreader " << m_command << ": --" << name << " takes no value\n";
                m_exitCode = kUsageError;
                return false;
            }
            m_flags.insert(name);
            continue;
        }
        if (!hasValue) {
            if (i + 1 >= args.size()) {
                err << "jitreader " << m_command << ": --" << name << " needs a value\n";
                m_exitCode = kUsageError;
                return false;
            }
            value = args[++i];
        }
        m_values[name] = value;
        m_allValues[name].push_back(value);
    }
    return true;
}

std::string OptionParser::value(const std::string& name, const std::string& fallback) const
{
    const auto found = m_values.find(name);
    return found == m_values.end() ? fallback : found->second;
}

std::vector<std::string> OptionParser::values(const std::string& name) const
{
    const auto found = m_allValues.find(name);
    return found == m_allValues.end() ? std::vector<std::string>() : found->second;
}

bool OptionParser::positiveValue(const std::string& name, std::size_t fallback, std::size_t& value,
                                 std::ostream& err) const
{
    value = fallback;
    if (!has(name))
        return true;
    unsigned long long number = 0;
    if (!parseNumber(this->value(name), number) || number == 0 || number > std::numeric_limits<std::size_t>::max()) {
        err << "jitreader " << m_command << ": --" << name << " needs a number of at least 1, not '"
            << this->value(name) << "'\n";
        return false;
    }
    value = static_cast<std::size_t>(number);
    return true;
}

void OptionParser::printHelp(std::ostream& out) const
{
    out << "usage: jitreader " << m_command << " [options] " << m_operands << "\n\n" << m_summary << "\n\noptions:\n";
    for (const std::string& name : m_order) {
        const Declaration& declaration = m_declarations.at(name);
        std::string left = "--" + name + (declaration.valueName.empty() ? "" : " " + declaration.valueName);
        for (const auto& shortName : m_shortNames)
            if (shortName.second == name)
                left = shortName.first + ", " + left;
        out << "  " << std::left << std::setw(22) << left << declaration.help << "\n";
    }
    if (!m_examples.empty())
        out << (m_examples.size() > 1 ? "\nexamples:\n" : "\nexample:\n");
    for (const std::string& example : m_examples)
        out << "  " << example << "\n";
}

} // namespace jitreader_tool
