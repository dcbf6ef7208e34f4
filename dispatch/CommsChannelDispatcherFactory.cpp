#include "CommsChannelDispatcher.h"
#include "CommsChannelLocatorEntry.h"

CommsChannelDispatcherFactory::CommsChannelDispatcherFactory() = default;

CommsChannelDispatcherFactory::~CommsChannelDispatcherFactory() = default;

CommsChannelDispatcher* CommsChannelDispatcherFactory::createDispatcher(CommsChannelLocatorEntry* entry)
{
    if (entry == nullptr) {
        return new CCNullDispatcher();
    }
    if (entry->channelHandle() != nullptr) {
        return new CCIntraProcDispatcher(entry->channelHandle());
    }
    if (entry->ipAddress().compare("") == 0) {
        return new CCInterProcDispatcher(entry->port());
    }
    // Any address at all, loopback included, marks another host.
    return new CCDistribProcDispatcher();
}
