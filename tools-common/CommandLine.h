// Reading the command lines of the resolver and the tool: splitting
// "--option=value", taking an option's value from the next argument, and
// reading decimal numbers. Each program keeps its own table of options and
// its own messages for bad values; the messages made here are the ones both
// programs give. Plain functions without side effects, any thread.
//
// Usage, for each argument that starts with '-':
//   command_line::OptionArgument argument = command_line::splitOption(argv[index]);
//   if (takesValue(argument.option)) {
//       if (!command_line::takeValue(argc, argv, &index, &argument, error)) return false;
//   } else if (!command_line::refuseValue(argument, error)) {
//       return false;
//   }
#ifndef COMMSCHANNEL_COMMAND_LINE_H
#define COMMSCHANNEL_COMMAND_LINE_H

#include <string>

namespace command_line {

// One option as typed: "--port=5001" is option "--port" with value "5001";
// "--port" and "-t" carry no value of their own. Only long options take
// their value after '='.
struct OptionArgument {
    std::string option;
    std::string value;
    bool hasValue = false;
};

OptionArgument splitOption(const std::string& argument);

// For an option that takes a value: keeps the '=' value, or else takes the
// next argument as the value and advances *index past it. Returns false
// with *error = "option X needs a value" when there is no next argument.
bool takeValue(int argc, const char* const* argv, int* index, OptionArgument* argument, std::string* error);

// For an option that takes no value: false with *error = "option X takes no
// value" when one came after '='.
bool refuseValue(const OptionArgument& argument, std::string* error);

// A decimal number of at most 18 digits in minimum..maximum, and nothing
// else: no sign, no blanks. Returns false, leaving *value alone, otherwise.
bool parseDecimal(const std::string& text, long long minimum, long long maximum, long long* value);

}  // namespace command_line

#endif
