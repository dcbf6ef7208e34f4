// CommsPeerGoneException: thrown by CommsChannel::receiveReply when the
// channel that was to answer a request is gone: its name was withdrawn (its
// process ended, or, in this process, the channel was destroyed) while the
// caller waited. what() names the replier and the request id. A
// CommsException, so code that catches time-outs catches this too.
#ifndef COMMSCHANNEL_COMMS_PEER_GONE_EXCEPTION_H
#define COMMSCHANNEL_COMMS_PEER_GONE_EXCEPTION_H

#include "CommsException.h"

#include <string>

class CommsPeerGoneException : public CommsException {
public:
    CommsPeerGoneException(const std::string& replier, long requestId);
    ~CommsPeerGoneException() override;

    const std::string& replier() const { return m_replier; }
    long requestId() const { return m_requestId; }

private:
    std::string m_replier;
    long m_requestId;
};

#endif
