// CommsChannelPortResponseMessage (type code 7): the resolver's answer to a
// port request: the channel name, the request id of the question and the
// channel's port, 0 when no process registered that name.
// A message belongs to one thread at a time.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_PORT_RESPONSE_MESSAGE_H
#define COMMSCHANNEL_COMMS_CHANNEL_PORT_RESPONSE_MESSAGE_H

#include "CommsChannelMessage.h"

class CommsChannelPortResponseMessage : public CommsChannelMessage {
public:
    CommsChannelPortResponseMessage();
    ~CommsChannelPortResponseMessage() override;

    void setRequestId(long requestId);
    long requestId() const;
    void setPort(int port);
    int port() const;

protected:
    void encodeBody(wire::Writer& writer) override;
    bool decodeBody(wire::Reader& reader) override;

private:
    long m_requestId;
    int m_port;
};

#endif
