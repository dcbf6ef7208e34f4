#include "CommsChannelLocatorEntry.h"

#include "CommsChannel.h"
#include "CommsChannelDispatcher.h"
#include "DispatcherDeleters.h"

CommsChannelLocatorEntry::CommsChannelLocatorEntry()
    : m_port(0), m_pchannelHandle(nullptr), m_pdispatcher(nullptr)
{
}

CommsChannelLocatorEntry::CommsChannelLocatorEntry(const std::string& channelName, int port,
                                                   const std::string& ipAddress)
    : m_channelName(channelName), m_port(port), m_pchannelHandle(nullptr), m_ipAddress(ipAddress),
      m_pdispatcher(nullptr)
{
}

CommsChannelLocatorEntry::CommsChannelLocatorEntry(CommsChannel* channel)
    : m_channelName(channel->channelName()), m_port(channel->port()), m_pchannelHandle(channel),
      m_pdispatcher(nullptr)
{
}

CommsChannelLocatorEntry::~CommsChannelLocatorEntry() = default;

const std::string& CommsChannelLocatorEntry::channelName() const { return m_channelName; }
void CommsChannelLocatorEntry::setChannelName(const std::string& channelName) { m_channelName = channelName; }
int CommsChannelLocatorEntry::port() const { return m_port; }
void CommsChannelLocatorEntry::setPort(int port) { m_port = port; }
CommsChannel* CommsChannelLocatorEntry::channelHandle() const { return m_pchannelHandle; }
void CommsChannelLocatorEntry::setChannelHandle(CommsChannel* channel) { m_pchannelHandle = channel; }
const std::string& CommsChannelLocatorEntry::ipAddress() const { return m_ipAddress; }
void CommsChannelLocatorEntry::setIpAddress(const std::string& ipAddress) { m_ipAddress = ipAddress; }
CommsChannelDispatcher* CommsChannelLocatorEntry::dispatcher() const { return m_pdispatcher; }

void CommsChannelLocatorEntry::setDispatcher(CommsChannelDispatcher* newDispatcher)
{
    if (m_pdispatcher == nullptr) {
        m_pdispatcher = newDispatcher;
        if (newDispatcher != nullptr) {
            // Deleted through the class it was made as: dispatchers have no
            // virtual destructor.
            m_pshared.reset(newDispatcher, [](CommsChannelDispatcher* dispatcher) {
                dispatcher_deleters::destroy(dispatcher);
            });
        }
    } else if (newDispatcher == nullptr) {
        // A send under way keeps the dispatcher until it returns.
        m_pshared.reset();
        m_pdispatcher = nullptr;
    } else if (newDispatcher != m_pdispatcher) {
        // The first dispatcher stays; the locator relies on this when a
        // known name is announced again with another port. The offered one
        // was never shared, so it goes at once.
        dispatcher_deleters::destroy(newDispatcher);
    }
}
