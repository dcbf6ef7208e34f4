// How commschannel prints what it found: channel names and message data
// (which may hold any bytes) made safe for a terminal or for JSON, one
// listing row or one message per line. Pure functions, any thread.
#ifndef COMMSCHANNEL_CLI_TEXT_H
#define COMMSCHANNEL_CLI_TEXT_H

#include <string>
#include <vector>

namespace cli {

// Bytes outside printable ASCII, the backslash and the double quote as
// \xNN; everything else as it is.
std::string escapeBytes(const std::string& bytes);

// A JSON string literal, quotes included. Each byte stands for the code
// point of the same value (bytes above 0x7f as \u0080..\u00ff), so the
// original bytes can be recovered exactly.
std::string jsonString(const std::string& bytes);

struct ListRow {
    std::string name;
    int port;
    int pid;              // 0: unknown
    std::string process;  // "": unknown
    long long rxQueueBytes;  // -1: no socket listed at the port
    long long drops;         // -1: no socket listed at the port
    // As the process publishes them; -1: it publishes nothing.
    long long queued = -1;
    long long maxQueued = -1;
    bool stopped = false;    // its receiver thread no longer receives
};

// A header and one aligned line per row, in the given order; unknown values
// as "-", and "!" after the name of a channel whose process stopped
// receiving.
std::string formatListTable(const std::vector<ListRow>& rows);
// One JSON object: name, port, pid, process, queued, max_queued,
// rx_queue_bytes, drops.
std::string formatListJson(const ListRow& row);

// The headers and the cells (one vector per line, as many as headers)
// aligned in columns two spaces apart, each line ending in a newline.
std::string formatTable(const std::vector<std::string>& headers, const std::vector<std::vector<std::string>>& cells);
// The number, or "-" for a negative one.
std::string knownOrDash(long long value);

struct MessageView {
    std::string source;
    std::string callback;
    int type;
    long requestId;
    std::string data;
};

// source=... callback=... type=N request_id=N length=N data="..." (names and
// data escaped as escapeBytes does).
std::string formatMessageLine(const MessageView& message);
// One JSON object: source, callback, type, request_id, length, data.
std::string formatMessageJson(const MessageView& message);

}  // namespace cli

#endif
