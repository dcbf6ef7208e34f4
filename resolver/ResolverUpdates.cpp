#include "ResolverUpdates.h"

#include "CommsChannelLocatorUpdateMessage.h"

namespace resolver {

namespace {

typedef CommsChannelLocatorUpdateMessage::eUpdateType UpdateType;

// Encoded size of an update; 0 when it cannot be encoded.
std::size_t encodedSize(CommsChannelLocatorUpdateMessage& update)
{
    int length = 0;
    return update.encode(&length) != nullptr ? static_cast<std::size_t>(length) : 0;
}

std::size_t emptyUpdateSize()
{
    CommsChannelLocatorUpdateMessage empty;
    return encodedSize(empty);
}

// What one row adds to an update's encoding. The message library owns the
// layout, so the size is measured rather than computed from it.
std::size_t rowSize(const UpdateRow& row, std::size_t emptySize)
{
    CommsChannelLocatorUpdateMessage single;
    single.addChannelEntry(static_cast<UpdateType>(row.type), row.name, row.port);
    const std::size_t size = encodedSize(single);
    return size > emptySize ? size - emptySize : 0;
}

Encoding encodeOne(const std::vector<const UpdateRow*>& rows)
{
    CommsChannelLocatorUpdateMessage update;
    for (std::vector<const UpdateRow*>::const_iterator it = rows.begin(); it != rows.end(); ++it) {
        update.addChannelEntry(static_cast<UpdateType>((*it)->type), (*it)->name, (*it)->port);
    }
    int length = 0;
    const char* bytes = update.encode(&length);
    return bytes != nullptr ? Encoding(bytes, bytes + length) : Encoding();
}

}  // namespace

std::vector<Encoding> encodeUpdates(const std::vector<UpdateRow>& rows, std::size_t maxBytes)
{
    const std::size_t emptySize = emptyUpdateSize();
    std::vector<Encoding> updates;
    std::vector<const UpdateRow*> pending;
    std::size_t pendingSize = emptySize;
    for (std::vector<UpdateRow>::const_iterator row = rows.begin(); row != rows.end(); ++row) {
        const std::size_t size = rowSize(*row, emptySize);
        if (size == 0 || emptySize + size > maxBytes) {
            continue;
        }
        if (pendingSize + size > maxBytes) {
            updates.push_back(encodeOne(pending));
            pending.clear();
            pendingSize = emptySize;
        }
        pending.push_back(&*row);
        pendingSize += size;
    }
    if (!pending.empty() || updates.empty()) {
        updates.push_back(encodeOne(pending));
    }
    // An encoding that failed is empty; an empty datagram must never be sent.
    std::vector<Encoding> result;
    for (std::vector<Encoding>::iterator it = updates.begin(); it != updates.end(); ++it) {
        if (!it->empty()) {
            result.push_back(Encoding());
            result.back().swap(*it);
        }
    }
    return result;
}

bool rowFits(const std::string& name, std::size_t maxBytes)
{
    const std::size_t emptySize = emptyUpdateSize();
    const std::size_t size = rowSize(UpdateRow{0, name, 0}, emptySize);
    return size != 0 && emptySize + size <= maxBytes;
}

std::size_t longestName(std::size_t maxBytes)
{
    // A name adds its own length to a row and nothing else, so the longest
    // is what a row with an empty name leaves of maxBytes.
    const std::size_t emptyRowUpdate = emptyUpdateSize() + rowSize(UpdateRow{0, std::string(), 0}, emptyUpdateSize());
    return emptyRowUpdate < maxBytes ? maxBytes - emptyRowUpdate : 0;
}

}  // namespace resolver
