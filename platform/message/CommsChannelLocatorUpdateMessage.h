// CommsChannelLocatorUpdateMessage (type code 5): rows of (update type,
// channel name, port). A locator sends one row for each channel it registers
// or unregisters; the resolver sends any number of rows (none at all is a
// valid update) to every registered locator.
// A message belongs to one thread at a time.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_UPDATE_MESSAGE_H
#define COMMSCHANNEL_COMMS_CHANNEL_LOCATOR_UPDATE_MESSAGE_H

#include "CommsChannelMessage.h"

#include <string>
#include <vector>

class CommsChannelLocatorUpdateMessage : public CommsChannelMessage {
public:
    // What a row says about its channel. Receivers treat every value other
    // than CHANNEL_ADDED as a removal.
    enum eUpdateType : int {
        CHANNEL_ADDED = 0,
        CHANNEL_REMOVED = 1
    };

    CommsChannelLocatorUpdateMessage();
    ~CommsChannelLocatorUpdateMessage() override;

    void addChannelEntry(eUpdateType updateType, const std::string& channelName, int port);
    int numChannelEntries() const;
    // Copies row `index` out through the pointers (any may be null). Returns
    // 1, or 0 for an index out of range, leaving the outputs untouched.
    int getChannelEntry(int index, eUpdateType* updateType, std::string* channelName, int* port) const;

protected:
    void encodeBody(wire::Writer& writer) override;
    bool decodeBody(wire::Reader& reader) override;

private:
    struct Entry {
        eUpdateType updateType;
        std::string channelName;
        int port;
    };
    std::vector<Entry> m_entries;
};

#endif
