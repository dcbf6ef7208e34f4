#include "CommandLine.h"

#include <cstdlib>

namespace command_line {

namespace {

// Longer numbers could overflow strtoll; no option of ours needs them.
const std::size_t MAX_DIGITS = 18;

}  // namespace

OptionArgument splitOption(const std::string& argument)
{
    OptionArgument split;
    split.option = argument;
    const std::size_t equals = argument.find('=');
    if (argument.compare(0, 2, "--") == 0 && equals != std::string::npos) {
        split.value = argument.substr(equals + 1);
        split.option.erase(equals);
        split.hasValue = true;
    }
    return split;
}

bool takeValue(int argc, const char* const* argv, int* index, OptionArgument* argument, std::string* error)
{
    if (argument->hasValue) {
        return true;
    }
    if (*index + 1 >= argc) {
        *error = "option " + argument->option + " needs a value";
        return false;
    }
    *index += 1;
    argument->value = argv[*index];
    argument->hasValue = true;
    return true;
}

bool refuseValue(const OptionArgument& argument, std::string* error)
{
    if (argument.hasValue) {
        *error = "option " + argument.option + " takes no value";
        return false;
    }
    return true;
}

bool parseDecimal(const std::string& text, long long minimum, long long maximum, long long* value)
{
    if (text.empty() || text.size() > MAX_DIGITS || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const long long parsed = std::strtoll(text.c_str(), nullptr, 10);
    if (parsed < minimum || parsed > maximum) {
        return false;
    }
    *value = parsed;
    return true;
}

}  // namespace command_line
