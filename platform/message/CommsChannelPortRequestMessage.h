// CommsChannelPortRequestMessage: a locator asks the resolver for the port of
// the channel named by channel(); requestId() lets the answer find its asker.
// A message belongs to one thread at a time.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_PORT_REQUEST_MESSAGE_H
#define COMMSCHANNEL_COMMS_CHANNEL_PORT_REQUEST_MESSAGE_H

#include "CommsChannelMessage.h"

class CommsChannelPortRequestMessage : public CommsChannelMessage {
public:
    CommsChannelPortRequestMessage();
    ~CommsChannelPortRequestMessage() override;

    void setRequestId(long requestId);
    long requestId() const;

protected:
    void encodeBody(wire::Writer& writer) override;
    bool decodeBody(wire::Reader& reader) override;

private:
    long m_requestId;
};

#endif
