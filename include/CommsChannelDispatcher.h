// CommsChannelDispatcher and its four strategies: how a message reaches one
// destination name. The locator keeps one dispatcher per known name, owned
// by that name's CommsChannelLocatorEntry; callers of getDispatcher use it at
// once and never delete or keep it.
//
// The base class has no virtual destructor: its virtual table holds sendMsg
// alone. A dispatcher is therefore never deleted through a
// CommsChannelDispatcher*; whoever owns one deletes it through the class it
// was created as (a CommsChannelLocatorEntry does this itself). The four
// strategies are final for the same reason.
//
// Dispatchers are immutable and hold no locks: several threads may use one
// at once.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_DISPATCHER_H
#define COMMSCHANNEL_COMMS_CHANNEL_DISPATCHER_H

#include <memory>

class ChannelInbox;
class CommsChannel;
class CommsChannelDataContainerMessage;
class CommsChannelLocatorEntry;

class CommsChannelDispatcher {
public:
    // Delivers or sends message on behalf of sender. 1 delivered or sent,
    // 0 not. The caller keeps the message.
    virtual int sendMsg(CommsChannel* sender, CommsChannelDataContainerMessage& message) = 0;

protected:
    // Deliberately neither virtual nor public: sendMsg is the only entry of
    // the table, and a delete through the base pointer does not compile.
    ~CommsChannelDispatcher() = default;
};

// Delivery to a channel of this process: the message is copied straight
// into the destination's inbox on the caller's thread.
class CCIntraProcDispatcher final : public CommsChannelDispatcher {
public:
    // destination is not owned. The dispatcher shares the ownership of its
    // inbox, so a send through it after the channel went is dropped rather
    // than delivered into freed memory.
    explicit CCIntraProcDispatcher(CommsChannel* destination);
    // 0 when there is no destination; otherwise 1, also when the
    // destination's interceptor dropped the message.
    int sendMsg(CommsChannel* sender, CommsChannelDataContainerMessage& message) override;
    CommsChannel* destination() const { return m_pchannel; }

private:
    CommsChannel* m_pchannel;
    std::shared_ptr<ChannelInbox> m_pinbox;
};

// Delivery to a channel of another process on this host: the message is
// encoded (data above 59750 bytes first moved to a spool file) and sent from
// the sender's socket to 127.0.0.1:port in datagrams of at most 60000 bytes.
class CCInterProcDispatcher final : public CommsChannelDispatcher {
public:
    // Data above this many bytes travels in a spool file.
    static constexpr int FILE_THRESHOLD = 59750;
    // No datagram carries more than this many bytes.
    static constexpr int MAX_PIECE = 60000;

    explicit CCInterProcDispatcher(int port);
    // 1 when every encoded byte was written; 0 when the sender has no socket
    // (descriptor 0), encoding fails or sendto fails.
    int sendMsg(CommsChannel* sender, CommsChannelDataContainerMessage& message) override;
    int port() const { return m_port; }

private:
    int m_port;
};

// Marks a channel on another host. Such delivery is not provided: sendMsg
// always answers 0 and sends nothing.
class CCDistribProcDispatcher final : public CommsChannelDispatcher {
public:
    int sendMsg(CommsChannel* sender, CommsChannelDataContainerMessage& message) override;
};

// Stands for a name that no process registered: prints one line naming
// source, destination, callback channel and data on standard output and
// answers 0.
class CCNullDispatcher final : public CommsChannelDispatcher {
public:
    int sendMsg(CommsChannel* sender, CommsChannelDataContainerMessage& message) override;
};

// Chooses a dispatcher for a locator entry: none, a null dispatcher; a
// channel of this process, intra-process; an empty address, inter-process on
// the entry's port; any other address, the distributed dispatcher. The
// result is new and owned by the caller, who deletes it through its own
// class (see dynamic_cast) or hands it to a CommsChannelLocatorEntry.
// Stateless; usable from any thread.
class CommsChannelDispatcherFactory {
public:
    CommsChannelDispatcherFactory();
    virtual ~CommsChannelDispatcherFactory();
    CommsChannelDispatcher* createDispatcher(CommsChannelLocatorEntry* entry);
};

#endif
