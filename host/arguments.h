#pragma once
// Command-line parsing for `mirel`, after the common Unix conventions:
// "--flag value" and "--flag=value", "--" ends the options, "-h" and
// "--help" ask for help. Anything that breaks them is a UsageError, which
// the commands turn into a usage message and exit status 2.
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace mirel::host {

inline constexpr int exitOK = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;
// `mirel watch` without a valid session: restarting it cannot help until the
// user signs in again, so the background service stops on this status.
inline constexpr int exitNeedsSignIn = 3;

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct OptionDefinition {
    std::string name;  // without the leading "--"
    bool repeatable = false;
    bool flag = false;  // takes no value; present or not
};

struct ParsedArguments {
    bool help = false;
    std::map<std::string, std::vector<std::string>> options;  // by name, in the order given
    std::vector<std::string> operands;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    // The value of a single option; absent if it was not given.
    std::optional<std::string> value(const std::string& name) const;
    // Every value of a repeatable option, in the order given.
    std::vector<std::string> values(const std::string& name) const;
};

// Every option in `options` takes a value unless it is a flag. A non-repeatable
// option given twice, an unknown option, a missing value or a value given to a
// flag throws UsageError.
ParsedArguments parseArguments(const std::vector<std::string>& arguments, const std::vector<OptionDefinition>& options);

// Writes "mirel {command}: {message}" and the command's usage to standard
// error; gives exitUsage.
int reportUsageError(std::string_view command, const UsageError& error, std::string_view usage);

// Whole number in [minimum, maximum], or UsageError naming the option.
long long parseInteger(const std::string& option, const std::string& text, long long minimum, long long maximum);

}  // namespace mirel::host
