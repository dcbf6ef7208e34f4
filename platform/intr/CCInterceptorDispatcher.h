// CCInterceptorDispatcher: a hook that sees every message before a channel
// queues it and may veto it. Derive from it, override intercept(), and hand
// the object to the channel's constructor; the channel never deletes it.
//
// intercept() runs while the channel's queue lock is held, on whichever
// thread queues the message (the receiver thread, or a sender in the same
// process), so it must be quick and must not call queue operations of the
// same channel.
#ifndef COMMSCHANNEL_CC_INTERCEPTOR_DISPATCHER_H
#define COMMSCHANNEL_CC_INTERCEPTOR_DISPATCHER_H

class CCInterceptorContext;

class CCInterceptorDispatcher {
public:
    CCInterceptorDispatcher();
    virtual ~CCInterceptorDispatcher();

    // Inspects context->getParams(); calls context->setSendFlag(0) to drop
    // the message. The result is informational only: the channel ignores it.
    // The default lets every message through and returns 1.
    virtual int intercept(CCInterceptorContext* context);
};

#endif
