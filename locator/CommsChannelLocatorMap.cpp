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
    return static_cast<unsigned int>(m_plocalMap->size() + m_premoteMap->size());
}

void CommsChannelLocator::dumpLocatorMap()
{
    dumpEntries(*m_plocalMap);
    dumpEntries(*m_premoteMap);
}
