// What commschannel monitor reports about one message (or one datagram that
// holds none): its kind, the ports it travelled between and the fields that
// its kind has. A field that a kind lacks is marked absent and is left out
// of the printed line. Plain values; formatting functions are pure and may
// run on any thread.
#ifndef COMMSCHANNEL_CLI_MONITOR_EVENT_H
#define COMMSCHANNEL_CLI_MONITOR_EVENT_H

#include <sys/time.h>

#include <string>
#include <vector>

namespace cli {

// One row of a locator update.
struct MonitorRow {
    bool added;  // CHANNEL_ADDED; every other value removes
    std::string name;
    int port;
};

struct MonitorEvent {
    timeval time{};
    std::string kind;  // data, spool, register, ..., status, undecodable
    int sourcePort = 0;
    int destinationPort = 0;
    // source and channel: a data message's own fields, or else the names
    // that the ports belong to, when known.
    bool hasSource = false;
    std::string source;
    bool hasChannel = false;
    std::string channel;
    // callback and type: data and spool only.
    bool hasCallbackAndType = false;
    std::string callback;
    long long type = 0;
    bool hasRequestId = false;
    long long requestId = 0;
    bool hasLength = false;
    unsigned long long length = 0;
    bool hasData = false;
    std::string data;
    std::string spoolPath;  // spool only
    int pieces = 0;         // > 0: joined from this many datagrams
    bool hasName = false;
    std::string name;
    bool hasPort = false;
    int port = 0;
    bool hasRows = false;
    std::vector<MonitorRow> rows;
    std::string reason;  // undecodable only
};

// One line, no newline: local time with microseconds, kind, the ports, then
// key=value for every field the kind has (names and data escaped as
// escapeBytes does, data and reason in double quotes).
std::string formatMonitorLine(const MonitorEvent& event);

// One JSON object, no newline: time (seconds since the epoch), kind, then
// source, channel, callback, type, request_id, length, data, src_port,
// dst_port, spool_path, pieces, name, port, rows, reason, each only where
// the kind has it.
std::string formatMonitorJson(const MonitorEvent& event);

}  // namespace cli

#endif
