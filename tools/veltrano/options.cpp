#include "options.h"

#include <cerrno>
#include <cstdlib>

namespace vcli {

Options::Options(int argc, char** argv, int first, const std::set<std::string>& valueNames,
                 const std::set<std::string>& switchNames) {
    for (int i = first; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            values_["help"] = "";
            continue;
        }
        if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
            throw UsageError("unexpected argument '" + arg + "'");
        }
        std::string name = arg.substr(2);
        std::string value;
        bool hasInlineValue = false;
        const size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            hasInlineValue = true;
        }
        if (switchNames.count(name) != 0) {
            if (hasInlineValue) {
                throw UsageError("option --" + name + " takes no value");
            }
            values_[name] = "";
        } else if (valueNames.count(name) != 0) {
            if (!hasInlineValue) {
                if (i + 1 >= argc) {
                    throw UsageError("option --" + name + " needs a value");
                }
                value = argv[++i];
            }
            values_[name] = value;
        } else {
            throw UsageError("unknown option --" + name);
        }
    }
}

const std::string& Options::Required(const std::string& name) const {
    const auto it = values_.find(name);
    if (it == values_.end() || it->second.empty()) {
        throw UsageError("option --" + name + " is required");
    }
    return it->second;
}

std::string Options::Text(const std::string& name, const std::string& fallback) const {
    const auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

long long Options::Integer(const std::string& name, long long fallback, long long low,
                           long long high) const {
    const auto it = values_.find(name);
    if (it == values_.end()) {
        return fallback;
    }
    const std::string& text = it->second;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || value < low || value > high) {
        throw UsageError("option --" + name + " needs an integer from " + std::to_string(low) +
                         " to " + std::to_string(high) + ", not '" + text + "'");
    }
    return value;
}

}  // namespace vcli
