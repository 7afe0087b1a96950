// Command-line parsing: long options with values, optional values, positional arguments, help text.
#include "cli.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace orvo_tool {

namespace {

std::string quoted(const std::string& s) { return "'" + s + "'"; }

// Whole-string integer parse; false on junk, overflow or an empty string.
bool toLong(const std::string& s, long& out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    out = std::strtol(s.c_str(), &end, 10);
    return errno == 0 && *end == '\0';
}

bool toDouble(const std::string& s, double& out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    out = std::strtod(s.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(out);
}

}  // namespace

std::string Args::text(const std::string& name, const std::string& fallback) const {
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

// The option's value as an integer of at least `minimum`; fallback when the option is absent.
int Args::intAtLeast(const std::string& name, int fallback, int minimum) const {
    if (!has(name)) return fallback;
    long v = 0;
    if (!toLong(text(name), v) || v < minimum || v > 1000000000L)
        throw UsageError("--" + name + ": expected " +
                         (minimum == 1 ? std::string("a positive integer")
                                       : "an integer of at least " + std::to_string(minimum)) +
                         ", got " + quoted(text(name)));
    return int(v);
}

// The option's value as a finite number; fallback when the option is absent.
double Args::number(const std::string& name, double fallback) const {
    if (!has(name)) return fallback;
    double v = 0;
    if (!toDouble(text(name), v))
        throw UsageError("--" + name + ": expected a number, got " + quoted(text(name)));
    return v;
}

double Args::positiveNumber(const std::string& name, double fallback) const {
    double v = number(name, fallback);
    if (has(name) && !(v > 0))
        throw UsageError("--" + name + ": expected a number above 0, got " + quoted(text(name)));
    return v;
}

Command::Command(std::string program, std::string usage, std::string summary)
    : program_(std::move(program)), usage_(std::move(usage)), summary_(std::move(summary)) {
    option({"help", Value::None, "", "show this help and exit", ""});
}

Command& Command::option(Option opt) {
    options_.push_back(std::move(opt));
    return *this;
}

const Option* Command::find(const std::string& name) const {
    for (const Option& o : options_)
        if (o.name == name) return &o;
    return nullptr;
}

// Accepts --name, --name=value and --name value (the last only for options that require a value);
// "--" ends the options. -h is --help.
Args Command::parse(int argc, char** argv, int first) const {
    Args args;
    bool options_done = false;
    for (int i = first; i < argc; ++i) {
        std::string a = argv[i];
        if (options_done || a.size() < 2 || a[0] != '-') {
            args.positional_.push_back(a);
            continue;
        }
        if (a == "--") {
            options_done = true;
            continue;
        }
        if (a == "-h") a = "--help";
        if (a.compare(0, 2, "--") != 0) throw UsageError("unknown option " + quoted(a));
        std::string name = a.substr(2), value;
        bool has_value = false;
        size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            has_value = true;
        }
        const Option* opt = find(name);
        if (!opt) throw UsageError("unknown option " + quoted("--" + name));
        if (opt->value == Value::None && has_value)
            throw UsageError("--" + name + " takes no value");
        if (opt->value == Value::Required && !has_value) {
            if (i + 1 >= argc) throw UsageError("--" + name + " needs a value (" + opt->value_name + ")");
            value = argv[++i];
        }
        if (opt->value == Value::Required && value.empty())
            throw UsageError("--" + name + " needs a non-empty value (" + opt->value_name + ")");
        args.values_[name] = value;
    }
    return args;
}

std::string Command::help() const {
    std::ostringstream out;
    out << "Usage: " << program_ << " " << usage_ << "\n\n" << summary_ << "\n\nOptions:\n";
    for (const Option& o : options_) {
        std::string left = "  --" + o.name;
        if (o.value == Value::Required) left += " " + o.value_name;
        if (o.value == Value::Optional) left += "[=" + o.value_name + "]";
        if (left.size() < 26) left.resize(26, ' ');
        else left += "\n" + std::string(26, ' ');
        out << left << o.help;
        if (!o.fallback.empty()) out << " (default " << o.fallback << ")";
        out << "\n";
    }
    return out.str();
}

bool printedHelp(const Command& cmd, const Args& args) {
    if (!args.has("help")) return false;
    std::fputs(cmd.help().c_str(), stdout);
    return true;
}

void parseSize(const std::string& option, const std::string& text, int& width, int& height) {
    size_t x = text.find_first_of("xX");
    long w = 0, h = 0;
    if (x == std::string::npos || !toLong(text.substr(0, x), w) || !toLong(text.substr(x + 1), h) ||
        w < 1 || h < 1 || w > 10000 || h > 10000)
        throw UsageError("--" + option + ": expected WIDTHxHEIGHT such as 9x6, got " + quoted(text));
    width = int(w);
    height = int(h);
}

}  // namespace orvo_tool
