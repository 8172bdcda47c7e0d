#include "host/arguments.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>

namespace mirel::host {

std::optional<std::string> ParsedArguments::value(const std::string& name) const {
    auto found = options.find(name);
    if (found == options.end() || found->second.empty()) return std::nullopt;
    return found->second.back();
}

std::vector<std::string> ParsedArguments::values(const std::string& name) const {
    auto found = options.find(name);
    return found == options.end() ? std::vector<std::string>{} : found->second;
}

ParsedArguments parseArguments(const std::vector<std::string>& arguments, const std::vector<OptionDefinition>& options) {
    ParsedArguments parsed;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        // A lone "-" is an operand by convention (it names standard input).
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            parsed.operands.push_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
            continue;
        }
        if (argument == "-h" || argument == "--help") {
            parsed.help = true;
            continue;
        }
        if (argument.rfind("--", 0) != 0) throw UsageError("unknown option " + argument);

        std::string name = argument.substr(2);
        std::optional<std::string> inlineValue;
        if (auto equals = name.find('='); equals != std::string::npos) {
            inlineValue = name.substr(equals + 1);
            name.resize(equals);
        }
        if (name == "help") throw UsageError("--help takes no value");
        auto option = std::find_if(options.begin(), options.end(), [&](const OptionDefinition& s) { return s.name == name; });
        if (option == options.end()) throw UsageError("unknown option --" + name);
        if (!option->repeatable && parsed.has(name)) throw UsageError("--" + name + " given more than once");

        std::string value;
        if (option->flag) {
            if (inlineValue) throw UsageError("--" + name + " takes no value");
        } else if (inlineValue) {
            value = *inlineValue;
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            throw UsageError("--" + name + " needs a value");
        }
        parsed.options[name].push_back(std::move(value));
    }
    return parsed;
}

int reportUsageError(std::string_view command, const UsageError& error, std::string_view usage) {
    std::cerr << "mirel " << command << ": " << error.what() << "\n\n" << usage;
    if (!usage.empty() && usage.back() != '\n') std::cerr << '\n';
    return exitUsage;
}

long long parseInteger(const std::string& option, const std::string& text, long long minimum, long long maximum) {
    errno = 0;
    char* end = nullptr;
    long long number = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || number < minimum || number > maximum) {
        throw UsageError("--" + option + " takes a whole number from " + std::to_string(minimum) + " to " +
                         std::to_string(maximum) + ", not \"" + text + "\"");
    }
    return number;
}

}  // namespace mirel::host
