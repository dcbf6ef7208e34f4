// CommsChannelIfc: the interface through which applications use a channel.
// CommsChannel is its only implementation; an application may delete a
// channel through a CommsChannelIfc*.
//
// Results are 1 for success and 0 for failure, refusal or nothing received.
// Every operation may be called from several threads at once.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_IFC_H
#define COMMSCHANNEL_COMMS_CHANNEL_IFC_H

#include <string>

class CommsChannelDataContainerMessage;

class CommsChannelIfc {
public:
    virtual ~CommsChannelIfc() {}

    // The name the channel was created with ("" for an anonymous channel).
    virtual std::string& channelName() = 0;
    // The channel's UDP port on 127.0.0.1, in host byte order.
    virtual int port() = 0;
    // The channel's socket descriptor; 0 means the channel has no socket.
    virtual int socketHandle() const = 0;

    // Sends a message prepared by the caller to message.channel(). The
    // message's source is overwritten with this channel's name and keeps it.
    // Blocks while the destination name is resolved.
    virtual int sendMsg(CommsChannelDataContainerMessage& message) = 0;
    // Sends length bytes of data to the named channel. 0 for null data or a
    // length below 1.
    virtual int sendMsg(const std::string& destination, char* data, int length) = 0;
    // Sends the string's bytes to the named channel. 0 for an empty string.
    virtual int sendMsg(const std::string& destination, const std::string& data) = 0;

    // Waits without limit for the front message of the queue and copies it
    // into message. 0 when the channel is shut down or has no socket.
    virtual int receiveMsg(CommsChannelDataContainerMessage& message) = 0;
    // Waits without limit for the message carrying requestId (0: any
    // message). Never throws a time-out.
    virtual int receiveMsg(CommsChannelDataContainerMessage& message, long requestId) = 0;
    // Receives only the data: *length carries the capacity of buffer in and
    // the number of bytes written out; data beyond the capacity is dropped
    // and no terminating NUL is written.
    virtual int receiveMsg(char* buffer, int* length) = 0;
    // Receives only the data, into a string.
    virtual int receiveMsg(std::string& data) = 0;
    // Waits for the message carrying requestId (0: any message), at most
    // timeout milliseconds per wait (-1: no limit).
    // Throws: CommsException when a wait times out.
    virtual int receiveMsg_ByID_Timed(CommsChannelDataContainerMessage& message, long requestId,
                                      int timeout) = 0;
    // True when nothing is queued; read without a lock, so outdated at once.
    virtual bool isQEmpty() = 0;
    // Wakes one thread blocked in a general receive, for good: from now on
    // general receives return 0.
    virtual void shutdown() = 0;
};

#endif
