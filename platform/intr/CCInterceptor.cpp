// The interceptor hook and the context it is given.
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"

CCInterceptorContext::CCInterceptorContext() : m_pmessage(nullptr), m_sendFlag(1) {}

CCInterceptorContext::~CCInterceptorContext() = default;

void CCInterceptorContext::setParams(CommsChannelDataContainerMessage* message) { m_pmessage = message; }

CommsChannelDataContainerMessage* CCInterceptorContext::getParams() const { return m_pmessage; }

int CCInterceptorContext::getSendFlag() const { return m_sendFlag; }

void CCInterceptorContext::setSendFlag(int sendFlag) { m_sendFlag = sendFlag; }

CCInterceptorDispatcher::CCInterceptorDispatcher() = default;

CCInterceptorDispatcher::~CCInterceptorDispatcher() = default;

int CCInterceptorDispatcher::intercept(CCInterceptorContext* /*context*/) { return 1; }
