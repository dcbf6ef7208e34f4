// CommsChannelLocatorEntry: what a process knows about one channel name: its
// port, the channel object when it lives in this process, an address (empty
// for this host) and the dispatcher that sends to it.
//
// The entry owns its dispatcher, together with any send that is using it at
// the moment: the dispatcher is deleted (through its own class) when the
// entry lets go of it and no send is still under way through it, by
// whichever of them finishes last. The entry never owns the channel. It has
// no lock: the locator changes entries only under its map lock.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_ENTRY_H
#define COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_ENTRY_H

#include <memory>
#include <string>

class CommsChannel;
class CommsChannelDispatcher;

class CommsChannelLocatorEntry {
public:
    CommsChannelLocatorEntry();
    CommsChannelLocatorEntry(const std::string& channelName, int port, const std::string& ipAddress);
    // Name and port from the channel, which becomes the handle.
    explicit CommsChannelLocatorEntry(CommsChannel* channel);
    // Lets go of the dispatcher (deleted now, or by the last send still
    // using it), never the channel.
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
    // one at once. Offering null drops the current one (deleted at once,
    // or by the last send still using it). Deliberate: a port change for a
    // known name does not change where its sends go. A dispatcher of a class
    // other than the library's four is deleted only if its class was added
    // to the library's deleters (tests do this); otherwise it is left alone.
    void setDispatcher(CommsChannelDispatcher* newDispatcher);

private:
    friend class CommsChannelLocator;  // shares the dispatcher with sends

    // The shared ownership of m_pdispatcher; empty exactly when it is null.
    const std::shared_ptr<CommsChannelDispatcher>& sharedDispatcher() const { return m_pshared; }

    std::string m_channelName;
    int m_port;
    CommsChannel* m_pchannelHandle;
    std::string m_ipAddress;
    CommsChannelDispatcher* m_pdispatcher;
    // The entry's share of m_pdispatcher; a send holds another while it
    // uses the dispatcher, so whichever lets go last deletes it.
    std::shared_ptr<CommsChannelDispatcher> m_pshared;
};

#endif
