// Command-line options of one subcommand: "--name value" pairs and "--name" switches.
//
// Each subcommand declares the names it knows; anything else, a missing value or a malformed
// number is a usage error (exit code 2), reported by UsageError.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

namespace vcli {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Options {
public:
    // Parses argv[first..argc). valueNames take a value, switchNames do not. "--help" and "-h"
    // are always known switches (stored as "help").
    Options(int argc, char** argv, int first, const std::set<std::string>& valueNames,
            const std::set<std::string>& switchNames = {});

    bool Has(const std::string& name) const { return values_.count(name) != 0; }
    bool Help() const { return Has("help"); }

    // The value of a required option; UsageError when it is missing.
    const std::string& Required(const std::string& name) const;
    std::string Text(const std::string& name, const std::string& fallback) const;
    // A decimal integer in [low, high]; UsageError for anything else.
    long long Integer(const std::string& name, long long fallback, long long low,
                      long long high) const;

private:
    std::map<std::string, std::string> values_;
};

}  // namespace vcli
