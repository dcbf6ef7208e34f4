// CCInterceptorContext: what an interceptor sees of one message that is
// about to be queued on a channel. The channel creates one per message,
// hands it to the interceptor and deletes it afterwards; the message it
// points to is the queued copy, owned by the channel.
#ifndef COMMSCHANNEL_CC_INTERCEPTOR_CONTEXT_H
#define COMMSCHANNEL_CC_INTERCEPTOR_CONTEXT_H

class CommsChannelDataContainerMessage;

class CCInterceptorContext {
public:
    // No message, send flag set (the message will be queued).
    CCInterceptorContext();
    virtual ~CCInterceptorContext();

    CCInterceptorContext(const CCInterceptorContext&) = delete;
    CCInterceptorContext& operator=(const CCInterceptorContext&) = delete;

    // The message under inspection; not owned.
    void setParams(CommsChannelDataContainerMessage* message);
    CommsChannelDataContainerMessage* getParams() const;

    // Non-zero: let the message be queued. Zero: drop it.
    int getSendFlag() const;
    void setSendFlag(int sendFlag);

private:
    CommsChannelDataContainerMessage* m_pmessage;
    int m_sendFlag;
};

#endif
