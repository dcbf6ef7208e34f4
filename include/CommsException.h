// CommsException: the exception that the CommsChannel library throws, only
// when a receive with a time-out waited in vain. what() returns the text,
// "CommsChannel 'receive' timed out, timeout duration = " and the time-out.
#ifndef COMMSCHANNEL_COMMS_EXCEPTION_H
#define COMMSCHANNEL_COMMS_EXCEPTION_H

#include "VireoException.h"

#include <string>

class CommsException : public VireoException {
public:
    explicit CommsException(const std::string& text);
    ~CommsException() override;
};

#endif
