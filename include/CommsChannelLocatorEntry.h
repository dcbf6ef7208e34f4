// CommsChannelLocatorEntry: what a process knows about one channel name: its
// port, the channel object when it lives in this process, an address (empty
// for this host) and the dispatcher that sends to it.
//
// The entry owns its dispatcher and deletes it when it goes; it never owns
// the channel. It has no lock: the locator changes entries only under its
// map lock.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_ENTRY_H
#define COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_ENTRY_H

#include <string>

class CommsChannel;
class CommsChannelDispatcher;

class CommsChannelLocatorEntry {
public:
    CommsChannelLocatorEntry();
    CommsChannelLocatorEntry(const std::string& channelName, int port, const std::string& ipAddress);
    // Name and port from the channel, which becomes the handle.
    explicit CommsChannelLocatorEntry(CommsChannel* channel);
    // Deletes the dispatcher, never the channel.
    ~CommsChannelLocatorEntry();

    CommsChannelLocatorEntry(const CommsChannelLocatorEntry&) = delete;
    CommsChannelLocatorEntry& operator=(const CommsChannelLocatorEntry&) = delete;

    const std::string& channelName() const;
    void setChannelName(const std::string& channelName);
    int port() const;
    void setPort(int port);
    CommsChannel* channelHandle() const;
    void setChannelHandle(CommsChannel* channel);
    const std::string& ipAddress() const;
    void setIpAddress(const std::string& ipAddress);
    CommsChannelDispatcher* dispatcher() const;
    // Takes ownership of newDispatcher in every case. The first dispatcher
    // an entry gets is kept: offering a different one deletes the offered
    // one at once. Offering null deletes the current one. Deliberate: a port
    // change for a known name does not change where its sends go.
    void setDispatcher(CommsChannelDispatcher* newDispatcher);

private:
    std::string m_channelName;
    int m_port;
    CommsChannel* m_pchannelHandle;
    std::string m_ipAddress;
    CommsChannelDispatcher* m_pdispatcher;
};

#endif
