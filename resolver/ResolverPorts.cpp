#include "ResolverPorts.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace resolver {

bool parsePort(const std::string& text, int* port)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const long value = std::strtol(text.c_str(), nullptr, 10);
    if (value < 1 || value > 65535) {
        return false;
    }
    *port = static_cast<int>(value);
    return true;
}

sockaddr_in loopbackAddress(int port)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

}  // namespace resolver
