// CommsChannelUnregisterLocatorMessage: sent by a process's locator to the resolver
// when the locator stops, withdrawing the port of its own socket
// (setPort); the resolver then withdraws the channels registered from that
// socket, tells the other locators, and sends that port nothing more. A message
// belongs to one thread at a time.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_UNREGISTERLOCATOR_MESSAGE_H
#define COMMSCHANNEL_COMMS_CHANNEL_UNREGISTERLOCATOR_MESSAGE_H

#include "CommsChannelMessage.h"

class CommsChannelUnregisterLocatorMessage : public CommsChannelMessage {
public:
    CommsChannelUnregisterLocatorMessage();
    ~CommsChannelUnregisterLocatorMessage() override;

    void setPort(int port);
    int port() const;

protected:
    void encodeBody(wire::Writer& writer) override;
    bool decodeBody(wire::Reader& reader) override;

private:
    int m_port;
};

#endif
