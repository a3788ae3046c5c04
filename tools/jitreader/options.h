// A small command-line option parser: --name, --name VALUE, --name=VALUE and positional words.
#pragma once

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace jitreader_tool {

/// The exit status of a bad command line.
constexpr int kUsageError = 1;

class OptionParser {
public:
    OptionParser(std::string command, std::string operands, std::string summary);

    /// Declares a switch without a value.
    OptionParser& flag(const std::string& name, const std::string& help);
    /// Declares an option that takes a value.
    OptionParser& option(const std::string& name, const std::string& valueName, const std::string& help);

    /// Lets `-letter` stand for `--name`.
    OptionParser& shortName(char letter, const std::string& name);

    /// A command line that shows the command at work, for the help.
    OptionParser& example(const std::string& commandLine);

    /// Parses `args`. False when the command should stop: after --help (exit code 0) or on a
    /// bad option (exit code kUsageError, with a message on `err`).
    bool parse(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
    int exitCode() const { return m_exitCode; }

    bool has(const std::string& name) const { return m_flags.count(name) != 0 || m_values.count(name) != 0; }
    std::string value(const std::string& name, const std::string& fallback = "") const;
    /// Every value of an option given more than once, in order.
    std::vector<std::string> values(const std::string& name) const;
    /// The value of `name` as a number of at least 1, or `fallback` when not given; false with
    /// a message on `err` when the value is no such number.
    bool positiveValue(const std::string& name, std::size_t fallback, std::size_t& value, std::ostream& err) const;
    const std::vector<std::string>& positional() const { return m_positional; }

    void printHelp(std::ostream& out) const;

private:
    struct Declaration {
        std::string valueName; // empty for a switch
        std::string help;
    };

    std::string m_command;
    std::string m_operands;
    std::string m_summary;
    std::vector<std::string> m_examples;
    std::vector<std::string> m_order;
    std::map<std::string, Declaration> m_declarations;
    std::set<std::string> m_flags;
    std::map<std::string, std::string> m_values;
    std::map<std::string, std::vector<std::string>> m_allValues;
    std::vector<std::string> m_positional;
    std::map<std::string, std::string> m_shortNames; // "-o" -> "output"
    int m_exitCode = 0;
};

} // namespace jitreader_tool
