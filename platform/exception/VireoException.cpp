#include "VireoException.h"

#include <cstdlib>

namespace {
const char SERIAL_PREFIX[] = "VireoException:";
}

VireoSerializable::~VireoSerializable() = default;

VireoException::VireoException() = default;

VireoException::VireoException(const std::string& text) : m_text(text) {}

VireoException::VireoException(const VireoException& other) = default;

VireoException& VireoException::operator=(const VireoException& other) = default;

VireoException::~VireoException() = default;

const char* VireoException::what() const noexcept { return m_text.c_str(); }

std::string VireoException::serialize() const
{
    return SERIAL_PREFIX + std::to_string(m_text.size()) + ":" + m_text;
}

bool VireoException::deserialize(std::string& serialized)
{
    const std::string prefix(SERIAL_PREFIX);
    if (serialized.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    const std::string::size_type colon = serialized.find(':', prefix.size());
    if (colon == std::string::npos || colon == prefix.size()) {
        return false;
    }
    std::string::size_type length = 0;
    for (std::string::size_type i = prefix.size(); i < colon; ++i) {
        const char c = serialized[i];
        if (c < '0' || c > '9' || length > serialized.size()) {
            return false;
        }
        length = length * 10 + static_cast<std::string::size_type>(c - '0');
    }
    // The declared length must match exactly: a truncated or padded string
    // is not something serialize() produced.
    if (serialized.size() - colon - 1 != length) {
        return false;
    }
    m_text = serialized.substr(colon + 1);
    return true;
}
