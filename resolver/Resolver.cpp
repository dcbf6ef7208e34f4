#include "Resolver.h"

#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsChannelMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "CommsChannelRegisterLocatorMessage.h"
#include "ResolverLog.h"
#include "WireHeader.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace resolver {

namespace {

const int ADDED = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
const int REMOVED = CommsChannelLocatorUpdateMessage::CHANNEL_REMOVED;
const int HIGHEST_PORT = 65535;
const long long DROPPED_LOG_INTERVAL_MS = 1000;
// A process that died with hundreds of names gets one line, not a page.
const std::size_t NAMES_PER_LINE = 20;

// Every encoding starts with the 8-byte header of WireHeader.h. The message
// classes check all of it; the resolver reads the type (byte 3) and the
// length only to refuse, before any decoding, a datagram that is not exactly
// one encoding of a type it handles.
const std::size_t TYPE_OFFSET = 3;
const std::size_t MAX_DATAGRAM_BYTES = 65535;

// Why a datagram cannot be one whole encoding, or null when it can.
const char* framingProblem(const char* bytes, std::size_t length)
{
    if (length > MAX_DATAGRAM_BYTES) {
        return "longer than any datagram";
    }
    if (bytes == nullptr || length < wire_header::SIZE) {
        return "shorter than a message header";
    }
    const std::uint32_t declared = wire_header::totalLength(bytes);
    if (declared > length) {
        return "truncated message";
    }
    if (declared < length) {
        return "bytes after the end of the message";
    }
    return nullptr;
}

bool handledType(int type)
{
    return type == COMMS_MSG_REGISTER_LOCATOR || type == COMMS_MSG_UNREGISTER_LOCATOR ||
           type == COMMS_MSG_LOCATOR_UPDATE || type == COMMS_MSG_PORT_REQUEST;
}

Outgoing outgoing(int port, const Encoding& bytes) { return Outgoing{port, bytes}; }

// "a", "b" and 3 more
std::string nameList(const std::vector<UpdateRow>& rows)
{
    std::string text;
    for (std::size_t i = 0; i < rows.size() && i < NAMES_PER_LINE; ++i) {
        text += (i == 0 ? "" : ", ") + log::quoted(rows[i].name);
    }
    if (rows.size() > NAMES_PER_LINE) {
        text += " and " + std::to_string(rows.size() - NAMES_PER_LINE) + " more";
    }
    return text;
}

// The removal rows among rows (which may hold names given back too).
std::vector<UpdateRow> removalsIn(const std::vector<UpdateRow>& rows)
{
    std::vector<UpdateRow> removals;
    for (std::vector<UpdateRow>::const_iterator it = rows.begin(); it != rows.end(); ++it) {
        if (it->type != ADDED) {
            removals.push_back(*it);
        }
    }
    return removals;
}

std::string formatProcess(const ProcessIdentity& process)
{
    return "pid " + std::to_string(process.pid) + (process.name.empty() ? "" : " (" + process.name + ")");
}

std::vector<UpdateRow> allChannelsAsAdded(const ResolverTable& table)
{
    std::vector<UpdateRow> rows;
    const ResolverTable::ChannelMap& channels = table.channels();
    for (ResolverTable::ChannelMap::const_iterator it = channels.begin(); it != channels.end(); ++it) {
        rows.push_back(UpdateRow{ADDED, it->first, it->second.port});
    }
    return rows;
}

}  // namespace

Resolver::Resolver(MillisecondClock clock, ProcessLookup lookup)
    : m_changed(false),
      m_clock(clock),
      m_droppedLog(DROPPED_LOG_INTERVAL_MS),
      m_ignoredRowLog(DROPPED_LOG_INTERVAL_MS),
      m_lookup(lookup)
{
}

void Resolver::identifyPending()
{
    std::vector<int> pending;
    pending.swap(m_pendingIdentify);
    for (std::vector<int>::const_iterator port = pending.begin(); port != pending.end(); ++port) {
        if (!m_lookup || m_processes.count(*port) != 0 || !m_table.hasLocator(*port)) {
            continue;
        }
        const ProcessIdentity process = m_lookup(*port);
        if (process.pid > 0) {
            m_processes[*port] = process;
        }
    }
    std::vector<PendingRegistration> registrations;
    registrations.swap(m_pendingLog);
    if (!log::enabled(log::LEVEL_INFO)) {
        return;
    }
    for (std::vector<PendingRegistration>::const_iterator it = registrations.begin(); it != registrations.end(); ++it) {
        log::write(log::LEVEL_INFO, "%s registered its locator; sent %zu channel(s) in %zu update(s)",
                   describe(it->port).c_str(), it->channels, it->updates);
        if (it->announcedPort != it->port) {
            log::write(log::LEVEL_INFO, "%s announced port %d for its locator; answering the source port",
                       describe(it->port).c_str(), it->announcedPort);
        }
    }
}

std::string Resolver::describe(int port)
{
    std::map<int, ProcessIdentity>::const_iterator known = m_processes.find(port);
    if (known != m_processes.end()) {
        return formatProcess(known->second);
    }
    if (m_lookup) {
        const ProcessIdentity process = m_lookup(port);
        if (process.pid > 0) {
            if (m_table.hasLocator(port)) {
                m_processes[port] = process;
            }
            return formatProcess(process);
        }
    }
    return "an unidentified process at port " + std::to_string(port);
}

void Resolver::forgetLocator(int port)
{
    if (m_table.removeLocator(port)) {
        m_changed = true;
    }
    m_processes.erase(port);
}

bool Resolver::takeChanged()
{
    const bool changed = m_changed;
    m_changed = false;
    return changed;
}

std::vector<Outgoing> Resolver::handleDatagram(const char* bytes, std::size_t length, int sourcePort)
{
    const char* problem = framingProblem(bytes, length);
    if (problem != nullptr) {
        dropped(problem, length, sourcePort);
        return std::vector<Outgoing>();
    }
    const int type = static_cast<unsigned char>(bytes[TYPE_OFFSET]);
    if (!handledType(type)) {
        dropped("message type " + std::to_string(type) + " is not for the resolver", length, sourcePort);
        return std::vector<Outgoing>();
    }
    CommsChannelMessageCreator creator;
    std::unique_ptr<CommsChannelMessage> message(
        creator.decodeMessage(bytes, static_cast<unsigned int>(length)));
    if (!message) {
        dropped("malformed message of type " + std::to_string(type), length, sourcePort);
        return std::vector<Outgoing>();
    }
    switch (message->type()) {
    case COMMS_MSG_REGISTER_LOCATOR:
        return handleRegister(sourcePort, static_cast<CommsChannelRegisterLocatorMessage&>(*message).port());
    case COMMS_MSG_UNREGISTER_LOCATOR:
        return handleUnregister(sourcePort);
    case COMMS_MSG_LOCATOR_UPDATE:
        return handleUpdate(static_cast<CommsChannelLocatorUpdateMessage&>(*message), sourcePort);
    case COMMS_MSG_PORT_REQUEST:
        return handlePortRequest(static_cast<CommsChannelPortRequestMessage&>(*message), sourcePort);
    default:
        dropped("message type " + std::to_string(type) + " is not for the resolver", length, sourcePort);
        return std::vector<Outgoing>();
    }
}

std::vector<Outgoing> Resolver::handleRegister(int sourcePort, int announcedPort)
{
    // Updates go where the registration came from: that is the locator's
    // socket, and the port whose liveness we watch. A differing port in the
    // message would be a foreign client's mistake, not an address to trust.
    if (m_table.addLocator(sourcePort)) {
        m_changed = true;
    }
    // Looked up soon, while the process is surely alive (the lines about its
    // end are written when it no longer is), but only once the answers of
    // this round have gone out: finding the owner of a port reads every
    // process's descriptors, and a new locator's first update must not wait
    // for that.
    m_pendingIdentify.push_back(sourcePort);
    const std::vector<Encoding> updates = encodeUpdates(allChannelsAsAdded(m_table));
    // Logged by identifyPending(), which names the process by its pid.
    PendingRegistration pending;
    pending.port = sourcePort;
    pending.announcedPort = announcedPort;
    pending.channels = m_table.channels().size();
    pending.updates = updates.size();
    m_pendingLog.push_back(pending);
    std::vector<Outgoing> replies;
    for (std::vector<Encoding>::const_iterator it = updates.begin(); it != updates.end(); ++it) {
        replies.push_back(outgoing(sourcePort, *it));
    }
    return replies;
}

std::vector<Outgoing> Resolver::handleUnregister(int sourcePort)
{
    std::vector<UpdateRow> removed;
    removeOwnedBy(sourcePort, &removed);
    if (log::enabled(log::LEVEL_INFO)) {
        const std::vector<UpdateRow> gone = removalsIn(removed);
        log::write(log::LEVEL_INFO, "%s unregistered its locator; withdrew %zu channel(s)%s%s",
                   describe(sourcePort).c_str(), gone.size(), gone.empty() ? "" : ": ", nameList(gone).c_str());
    }
    forgetLocator(sourcePort);
    return toAllLocators(removed);
}

std::vector<Outgoing> Resolver::handleUpdate(const CommsChannelLocatorUpdateMessage& update, int sourcePort)
{
    std::vector<UpdateRow> applied;
    for (int index = 0; index < update.numChannelEntries(); ++index) {
        CommsChannelLocatorUpdateMessage::eUpdateType type = CommsChannelLocatorUpdateMessage::CHANNEL_ADDED;
        std::string name;
        int port = 0;
        update.getChannelEntry(index, &type, &name, &port);
        // Every table row must fit an update of its own, or it could never
        // be passed on; the library never registers an empty name.
        const char* const what = type == ADDED ? "registration" : "removal";
        if (name.empty() || !rowFits(name)) {
            ignoredRow(std::string(what) + " row with a name of " + std::to_string(name.size()) +
                           " bytes (a name must be non-empty and fit an update of its own)",
                       sourcePort);
            continue;
        }
        UpdateRow row{};
        if (type != ADDED) {
            applyRemoval(name, sourcePort, &applied);
        } else if (applyRegistration(name, port, sourcePort, &row)) {
            applied.push_back(row);
        }
    }
    return toAllLocators(applied);
}

bool Resolver::applyRegistration(const std::string& name, int port, int sourcePort, UpdateRow* applied)
{
    if (port < 1 || port > HIGHEST_PORT) {
        ignoredRow("registration of " + log::quoted(name) + " at port " + std::to_string(port) +
                       " (ports are 1 to 65535)",
                   sourcePort);
        return false;
    }
    const ChannelRecord* previous = m_table.find(name);
    if (previous != nullptr && previous->ownerPort != sourcePort) {
        const int previousOwner = previous->ownerPort;
        const int previousPort = previous->port;
        log::write(log::LEVEL_NOTICE, "%s taken over by %s at port %d from %s at port %d",
                   log::quoted(name).c_str(), describe(sourcePort).c_str(), port, describe(previousOwner).c_str(),
                   previousPort);
        // Kept, so that the name is not lost when the newcomer (often a
        // short-lived listener) withdraws it while the old owner runs on.
        m_takeovers.forget(name, sourcePort);
        m_takeovers.remember(name, *previous);
    } else if (log::enabled(log::LEVEL_INFO)) {
        log::write(log::LEVEL_INFO, "%s registered %s at port %d", describe(sourcePort).c_str(),
                   log::quoted(name).c_str(), port);
    }
    if (m_table.addChannel(name, port, sourcePort)) {
        m_changed = true;
    }
    *applied = UpdateRow{ADDED, name, port};
    return true;
}

void Resolver::applyRemoval(const std::string& name, int sourcePort, std::vector<UpdateRow>* applied)
{
    // A registration of this sender's that a takeover replaced is not to
    // be given back any more: it has withdrawn the name itself.
    m_takeovers.forget(name, sourcePort);
    const ChannelRecord* record = m_table.find(name);
    if (record == nullptr) {
        if (log::enabled(log::LEVEL_INFO)) {
            log::write(log::LEVEL_INFO, "%s withdrew %s, which was not registered; nothing to do",
                       describe(sourcePort).c_str(), log::quoted(name).c_str());
        }
        return;
    }
    if (record->ownerPort != sourcePort) {
        // A later registration of the name by another process replaced
        // this one's; its late removal must not withdraw the new owner's.
        if (log::enabled(log::LEVEL_INFO)) {
            const int owner = record->ownerPort;
            log::write(log::LEVEL_INFO, "%s withdrew %s, which %s owns now; ignored", describe(sourcePort).c_str(),
                       log::quoted(name).c_str(), describe(owner).c_str());
        }
        return;
    }
    applied->push_back(UpdateRow{REMOVED, name, record->port});
    m_table.removeChannel(name);
    m_changed = true;
    if (log::enabled(log::LEVEL_INFO)) {
        log::write(log::LEVEL_INFO, "%s withdrew %s", describe(sourcePort).c_str(), log::quoted(name).c_str());
    }
    giveBack(name, sourcePort, applied);
}

void Resolver::giveBack(const std::string& name, int withdrawnBy, std::vector<UpdateRow>* rows)
{
    ChannelRecord earlier{0, 0};
    if (!m_takeovers.takeBack(name, &earlier)) {
        return;
    }
    log::write(log::LEVEL_NOTICE, "%s given back to %s at port %d, which %s had taken it from",
               log::quoted(name).c_str(), describe(earlier.ownerPort).c_str(), earlier.port,
               describe(withdrawnBy).c_str());
    m_table.addChannel(name, earlier.port, earlier.ownerPort);
    m_changed = true;
    rows->push_back(UpdateRow{ADDED, name, earlier.port});
}

std::vector<Outgoing> Resolver::handlePortRequest(CommsChannelPortRequestMessage& request, int sourcePort)
{
    const int port = m_table.portOf(request.channel());
    if (log::enabled(log::LEVEL_INFO)) {
        log::write(log::LEVEL_INFO, "port request %ld from %s for %s: port %d", request.requestId(),
                   describe(sourcePort).c_str(), log::quoted(request.channel()).c_str(), port);
    }
    CommsChannelPortResponseMessage response;
    response.setChannel(request.channel());
    response.setRequestId(request.requestId());
    response.setPort(port);
    int length = 0;
    const char* bytes = response.encode(&length);
    std::vector<Outgoing> replies;
    if (bytes != nullptr && length > 0) {
        replies.push_back(Outgoing{sourcePort, Encoding(bytes, bytes + length)});
    }
    return replies;
}

std::vector<Outgoing> Resolver::withdrawDead(const std::set<int>& boundPorts)
{
    // First, so that nothing is given back to a process that is gone.
    m_takeovers.keepBound(boundPorts);
    std::vector<UpdateRow> removed;
    const std::set<int> locators = m_table.locators();
    for (std::set<int>::const_iterator it = locators.begin(); it != locators.end(); ++it) {
        if (boundPorts.count(*it) == 0) {
            std::vector<UpdateRow> names;
            removeOwnedBy(*it, &names);
            const std::vector<UpdateRow> gone = removalsIn(names);
            if (!gone.empty()) {
                log::write(log::LEVEL_NOTICE, "%s is gone; withdrew %zu name(s): %s", describe(*it).c_str(),
                           gone.size(), nameList(gone).c_str());
            } else if (log::enabled(log::LEVEL_INFO)) {
                log::write(log::LEVEL_INFO, "%s is gone; it had no names", describe(*it).c_str());
            }
            forgetLocator(*it);
            removed.insert(removed.end(), names.begin(), names.end());
        }
    }
    const ResolverTable::ChannelMap channels = m_table.channels();
    for (ResolverTable::ChannelMap::const_iterator it = channels.begin(); it != channels.end(); ++it) {
        if (boundPorts.count(it->second.port) == 0) {
            // The owner lives on (or was never a registered locator), but
            // the channel's socket closed without a removal row.
            log::write(log::LEVEL_NOTICE, "withdrew %s of %s: its socket at port %d is closed",
                       log::quoted(it->first).c_str(), describe(it->second.ownerPort).c_str(), it->second.port);
            removed.push_back(UpdateRow{REMOVED, it->first, it->second.port});
            m_table.removeChannel(it->first);
            m_changed = true;
            giveBack(it->first, it->second.ownerPort, &removed);
        }
    }
    return toAllLocators(removed);
}

std::vector<Outgoing> Resolver::restore(const ResolverTable& saved, const std::set<int>& boundPorts)
{
    m_table = saved;
    m_takeovers.clear();
    m_changed = true;
    m_processes.clear();
    // The processes still running are looked up now; those that died while
    // no resolver ran can no longer be named.
    const std::set<int> locators = m_table.locators();
    for (std::set<int>::const_iterator it = locators.begin(); it != locators.end() && m_lookup; ++it) {
        if (boundPorts.count(*it) != 0) {
            const ProcessIdentity process = m_lookup(*it);
            if (process.pid > 0) {
                m_processes[*it] = process;
            }
        }
    }
    return withdrawDead(boundPorts);
}

void Resolver::removeOwnedBy(int ownerPort, std::vector<UpdateRow>* removed)
{
    m_takeovers.forgetOwner(ownerPort);
    const std::vector<std::string> names = m_table.channelsOwnedBy(ownerPort);
    for (std::vector<std::string>::const_iterator it = names.begin(); it != names.end(); ++it) {
        removed->push_back(UpdateRow{REMOVED, *it, m_table.portOf(*it)});
        m_table.removeChannel(*it);
        m_changed = true;
        giveBack(*it, ownerPort, removed);
    }
}

std::vector<Outgoing> Resolver::toAllLocators(const std::vector<UpdateRow>& rows) const
{
    std::vector<Outgoing> sends;
    if (rows.empty()) {
        return sends;
    }
    const std::vector<Encoding> updates = encodeUpdates(rows);
    const std::set<int>& locators = m_table.locators();
    for (std::set<int>::const_iterator port = locators.begin(); port != locators.end(); ++port) {
        for (std::vector<Encoding>::const_iterator it = updates.begin(); it != updates.end(); ++it) {
            sends.push_back(outgoing(*port, *it));
        }
    }
    return sends;
}

void Resolver::dropped(const std::string& reason, std::size_t length, int sourcePort)
{
    unsigned long suppressed = 0;
    if (!m_droppedLog.allow(m_clock(), &suppressed)) {
        return;
    }
    const std::string sender = describe(sourcePort);
    if (suppressed == 0) {
        log::write(log::LEVEL_WARNING, "dropped a datagram of %zu bytes from %s: %s", length, sender.c_str(),
                   reason.c_str());
    } else {
        log::write(log::LEVEL_WARNING, "dropped a datagram of %zu bytes from %s: %s (and %lu more since the last report)",
                   length, sender.c_str(), reason.c_str(), suppressed);
    }
}

void Resolver::ignoredRow(const std::string& reason, int sourcePort)
{
    unsigned long suppressed = 0;
    if (!m_ignoredRowLog.allow(m_clock(), &suppressed)) {
        return;
    }
    const std::string sender = describe(sourcePort);
    if (suppressed == 0) {
        log::write(log::LEVEL_NOTICE, "ignored a %s from %s", reason.c_str(), sender.c_str());
    } else {
        log::write(log::LEVEL_NOTICE, "ignored a %s from %s (and %lu more rows since the last report)",
                   reason.c_str(), sender.c_str(), suppressed);
    }
}

}  // namespace resolver
