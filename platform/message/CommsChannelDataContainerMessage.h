// CommsChannelDataContainerMessage: the application data message. It names
// its destination (channel()), its source, an optional callback channel,
// protocol, interface and remote context, a request id (0: answers no
// request), a message type that selects the queueing priority at the
// destination, and the data bytes.
//
// Large data can be moved into a spool file (putDataToFile) so that the
// encoding carries only a reference; decoding brings the data back and
// removes the file. The message keeps its own data in memory all the same,
// so getData() always answers with the data that was set.
//
// Copies are deep. A message belongs to one thread at a time.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_DATA_CONTAINER_MESSAGE_H
#define COMMSCHANNEL_COMMS_CHANNEL_DATA_CONTAINER_MESSAGE_H

#include "CommsChannelMessage.h"
#include "VireoThreadPriority.h"

#include <string>

class CommsChannelDataContainerMessage : public CommsChannelMessage {
public:
    CommsChannelDataContainerMessage();
    // Deep copy. The copy has no spool file of its own: if it is sent with
    // large data, a new file is made for it.
    CommsChannelDataContainerMessage(const CommsChannelDataContainerMessage& other);
    CommsChannelDataContainerMessage& operator=(const CommsChannelDataContainerMessage& other);
    // Moves hand the fields and the data over without copying the bytes;
    // like a copy, the target gets no spool file, and the source is left
    // empty and without one. Large messages travel through the library's
    // queue this way, so that they are never held twice.
    CommsChannelDataContainerMessage(CommsChannelDataContainerMessage&& other);
    CommsChannelDataContainerMessage& operator=(CommsChannelDataContainerMessage&& other);
    // Removes a spool file that was made but never encoded.
    ~CommsChannelDataContainerMessage() override;

    void setSourceChannel(const std::string& name);
    void setCallbackChannel(const std::string& name);
    void setProtocol(const std::string& protocol);
    void setInterface(const std::string& interfaceName);
    void setRemoteContext(const std::string& context);
    void setRequestId(long requestId);
    void setMsgType(int msgType);
    void setPriority(VireoThreadPriority priority);
    // Copies length bytes from data. A null pointer or a length below 1
    // leaves the message with no data.
    void setData(const char* data, int length);

    std::string& sourceChannel();
    std::string& callbackChannel();
    std::string& protocol();
    std::string& interface();
    std::string& remoteContext();
    long requestId() const;
    int msgType() const;
    VireoThreadPriority priority() const;

    // The data as a string (a copy).
    std::string getData() const;
    // Pointer to the data bytes, owned by the message and valid until the
    // data changes or the message goes; the length is written to *length.
    char* getData(int* length);
    int getDataLength() const;
    // Moves the data out into out (whose old contents are dropped) and
    // leaves this message without data: getData() without the copy.
    void takeData(std::string& out);

    // Writes the data to a spool file so that the next encode() carries a
    // reference instead of the bytes. Without data, or when the spool
    // directory cannot be used, the data simply stays in the encoding.
    void putDataToFile();
    // True when the next encode() will refer to a spool file.
    bool hasDataFile() const;

protected:
    void encodeBody(wire::Writer& writer) override;
    bool decodeBody(wire::Reader& reader) override;

private:
    void copyFields(const CommsChannelDataContainerMessage& other);
    void moveFields(CommsChannelDataContainerMessage& other);
    void dropDataFile();

    std::string m_sourceChannel;
    std::string m_callbackChannel;
    std::string m_protocol;
    std::string m_interface;
    std::string m_remoteContext;
    long m_requestId;
    int m_msgType;
    VireoThreadPriority m_priority;
    std::string m_data;
    // Spool file holding a copy of m_data, or empty. Once an encoding that
    // refers to it has been handed out, the file belongs to the receiver.
    std::string m_dataFile;
    bool m_dataFileHandedOut;
};

#endif
