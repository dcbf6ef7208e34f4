// CommsChannelMessageCreator: turns a received encoding into a new message
// object of the right class. Holds no state; one object may serve any number
// of threads.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_MESSAGE_CREATOR_H
#define COMMSCHANNEL_COMMS_CHANNEL_MESSAGE_CREATOR_H

class CommsChannelMessage;

class CommsChannelMessageCreator {
public:
    CommsChannelMessageCreator();
    virtual ~CommsChannelMessageCreator();

    // Decodes the complete encoding at buffer, bounded by the length in its
    // header (the caller guarantees that many bytes, and at least 8). Returns
    // a new message that the caller deletes, or null for anything that cannot
    // be decoded.
    CommsChannelMessage* decodeMessage(const char* buffer);
    // As above, but never reads past buffer + available.
    CommsChannelMessage* decodeMessage(const char* buffer, unsigned int available);

private:
    static CommsChannelMessage* createForType(int typeCode);
};

#endif
