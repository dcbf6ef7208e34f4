// CommsChannelMessage: base of every message that travels between channels
// and between a process's locator and the resolver. Each message turns itself
// into a byte encoding (encode) and back (decode); CommsChannelMessageCreator
// builds the right class from received bytes.
//
// Every encoding starts with an 8-byte header: magic 0xCC 0x5E, the
// encoding's version (1, or 2 for a data container whose data is in a spool
// file), the type code, then the total length of the encoding (header
// included) as an unsigned 32-bit integer in the host's byte order. The rest
// is described in docs/wire-format.md. A decoder that meets a version it
// cannot read says so on standard error, one line per encoding.
//
// A message object belongs to one thread at a time; it has no locks.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_MESSAGE_H
#define COMMSCHANNEL_COMMS_CHANNEL_MESSAGE_H

#include <string>
#include <vector>

namespace wire {
class Writer;
class Reader;
}

// Type codes, byte 3 of every encoding. 5 and 7 are fixed by the channel
// library's locator; the others are this library's own choice.
enum CommsChannelMessageType {
    COMMS_MSG_DATA_CONTAINER = 1,
    COMMS_MSG_REGISTER_LOCATOR = 2,
    COMMS_MSG_UNREGISTER_LOCATOR = 3,
    COMMS_MSG_LOCATOR_UPDATE = 5,
    COMMS_MSG_PORT_REQUEST = 6,
    COMMS_MSG_PORT_RESPONSE = 7
};

class CommsChannelMessage {
public:
    virtual ~CommsChannelMessage();

    // Encodes the message. The caller sets *length to 0 before the call; on
    // success it holds the number of bytes and the result points at them. The
    // buffer belongs to the message and stays valid until the next encode()
    // or the message's destruction. Null (with *length 0) when the message
    // cannot be encoded.
    virtual char* encode(int* length);
    // Fills the message from a complete encoding at buffer, bounded by the
    // length in its header: the caller guarantees that many bytes (and at
    // least 8) are readable. Returns 1 on success; 0 for anything malformed,
    // of another type, inconsistent or of a version this build cannot read
    // (that one with a line on standard error), leaving the message
    // unchanged.
    virtual int decode(const char* buffer);
    // As decode(buffer), but never reads past buffer + available: an
    // encoding whose header claims more than that is rejected.
    virtual int decode(const char* buffer, unsigned int available);
    // The destination channel name.
    virtual std::string& channel();

    void setChannel(const std::string& channelName);
    // The type code of this message (CommsChannelMessageType). No side effects.
    int type() const;

protected:
    explicit CommsChannelMessage(int typeCode);
    // Copies carry the type and channel, never another message's encoding.
    CommsChannelMessage(const CommsChannelMessage& other);
    CommsChannelMessage& operator=(const CommsChannelMessage& other);
    // Moves take the channel name over in the same way, without copying it.
    CommsChannelMessage(CommsChannelMessage&& other) noexcept;
    CommsChannelMessage& operator=(CommsChannelMessage&& other) noexcept;

    // Appends the fields after the channel name.
    virtual void encodeBody(wire::Writer& writer) = 0;
    // Reads the fields after the channel name and, only if all of them are
    // well formed and the reader is complete, stores them. Returns success.
    virtual bool decodeBody(wire::Reader& reader) = 0;

private:
    int decodeBounded(const char* buffer, unsigned int length);

    int m_type;
    std::string m_channel;
    std::vector<char> m_encoding;
};

#endif
