// Command-line parsing shared by the orvo tool and the demo: declared options, checked values.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvo_tool {

// A bad command line; main prints it with a hint to --help and exits with kExitUsage.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// A failure at run time (device, files); main prints it and exits with kExitFailure.
struct RunError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCheckFailed = 3;

enum class Value { None, Required, Optional };

struct Option {
    std::string name;        // without the leading dashes
    Value value = Value::None;
    std::string value_name;  // shown in the help, e.g. PATH
    std::string help;
    std::string fallback;    // shown as "(default ...)" when not empty
};

class Args {
public:
    bool has(const std::string& name) const { return values_.count(name) != 0; }
    std::string text(const std::string& name, const std::string& fallback = "") const;
    int positiveInt(const std::string& name, int fallback) const { return intAtLeast(name, fallback, 1); }
    int count(const std::string& name, int fallback) const { return intAtLeast(name, fallback, 0); }
    int intAtLeast(const std::string& name, int fallback, int minimum) const;
    double number(const std::string& name, double fallback) const;
    double positiveNumber(const std::string& name, double fallback) const;
    const std::vector<std::string>& positional() const { return positional_; }

private:
    friend class Command;
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

// One subcommand's (or program's) interface: its options, usage line and description.
class Command {
public:
    Command(std::string program, std::string usage, std::string summary);
    Command& option(Option opt);
    // Parses argv[first..argc); throws UsageError. "--help"/"-h" sets has("help").
    Args parse(int argc, char** argv, int first) const;
    std::string help() const;
    const std::string& program() const { return program_; }

private:
    const Option* find(const std::string& name) const;
    std::string program_, usage_, summary_;
    std::vector<Option> options_;
};

// Prints the command's help on standard output when --help was given; true when it did.
bool printedHelp(const Command& cmd, const Args& args);

// "WxH" (e.g. 9x6) into two positive integers; throws UsageError naming the option.
void parseSize(const std::string& option, const std::string& text, int& width, int& height);

}  // namespace orvo_tool
