#include "ResolverPorts.h"

#include "CommandLine.h"

namespace resolver {

namespace {

// "65535": anything longer is no port, leading zeros or not.
const std::size_t MAX_PORT_DIGITS = 5;

}  // namespace

bool parsePort(const std::string& text, int* port)
{
    long long value = 0;
    if (text.size() > MAX_PORT_DIGITS || !command_line::parseDecimal(text, 1, 65535, &value)) {
        return false;
    }
    *port = static_cast<int>(value);
    return true;
}

}  // namespace resolver
