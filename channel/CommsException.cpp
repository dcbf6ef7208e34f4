#include "CommsException.h"

CommsException::CommsException(const std::string& text) : VireoException(text) {}

CommsException::~CommsException() = default;
