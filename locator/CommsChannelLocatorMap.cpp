// Read-only views of the locator's maps, for diagnosis.
#include "CommsChannelLocator.h"
#include "CommsChannelLocatorEntry.h"

#include <iostream>

namespace {

void dumpEntries(const std::map<std::string, CommsChannelLocatorEntry*>& entries)
{
    for (const auto& row : entries) {
        const CommsChannelLocatorEntry* entry = row.second;
        std::cout << "*************************************" << std::endl;
        std::cout << "Channel Name = " << '"' << entry->channelName() << '"' << std::endl;
        std::cout << "Channel Port = " << entry->port() << std::endl;
        std::cout << "Channel handle = " << static_cast<const void*>(entry->channelHandle()) << std::endl;
        std::cout << "*************************************" << std::endl;
    }
}

}  // namespace

unsigned int CommsChannelLocator::size()
{
    return static_cast<unsigned int>(m_localMap.size() + m_remoteMap.size());
}

void CommsChannelLocator::dumpLocatorMap()
{
    dumpEntries(m_localMap);
    dumpEntries(m_remoteMap);
}
