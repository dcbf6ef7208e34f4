#include "CommsPeerGoneException.h"

CommsPeerGoneException::CommsPeerGoneException(const std::string& replier, long requestId)
    : CommsException("CommsChannel 'receive' abandoned: replier \"" + replier + "\" is gone, request id = " +
                     std::to_string(requestId)),
      m_replier(replier),
      m_requestId(requestId)
{
}

CommsPeerGoneException::~CommsPeerGoneException() = default;
