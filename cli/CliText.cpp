#include "CliText.h"

#include <algorithm>
#include <cstdio>

namespace cli {

namespace {

const char HEX[] = "0123456789abcdef";

std::string padded(const std::string& text, std::size_t width)
{
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

}  // namespace

std::string knownOrDash(long long value) { return value < 0 ? "-" : std::to_string(value); }

std::string escapeBytes(const std::string& bytes)
{
    std::string out;
    for (std::string::const_iterator it = bytes.begin(); it != bytes.end(); ++it) {
        const unsigned char byte = static_cast<unsigned char>(*it);
        if (byte >= 0x20 && byte < 0x7f && byte != '\\' && byte != '"') {
            out += static_cast<char>(byte);
        } else {
            out += "\\x";
            out += HEX[byte >> 4];
            out += HEX[byte & 0x0f];
        }
    }
    return out;
}

std::string jsonString(const std::string& bytes)
{
    std::string out("\"");
    for (std::string::const_iterator it = bytes.begin(); it != bytes.end(); ++it) {
        const unsigned char byte = static_cast<unsigned char>(*it);
        switch (byte) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (byte >= 0x20 && byte < 0x7f) {
                out += static_cast<char>(byte);
            } else {
                out += "\\u00";
                out += HEX[byte >> 4];
                out += HEX[byte & 0x0f];
            }
        }
    }
    out += '"';
    return out;
}

std::string formatListTable(const std::vector<ListRow>& rows)
{
    const std::vector<std::string> headers{"NAME", "PORT", "PID", "PROCESS", "QUEUED", "MAXQ", "RX_QUEUE", "DROPS"};
    std::vector<std::vector<std::string>> cells;
    for (const ListRow& row : rows) {
        cells.push_back({escapeBytes(row.name) + (row.stopped ? "!" : ""), std::to_string(row.port),
                         row.pid > 0 ? std::to_string(row.pid) : "-",
                         row.process.empty() ? "-" : escapeBytes(row.process), knownOrDash(row.queued),
                         knownOrDash(row.maxQueued), knownOrDash(row.rxQueueBytes), knownOrDash(row.drops)});
    }
    return formatTable(headers, cells);
}

std::string formatTable(const std::vector<std::string>& headers, const std::vector<std::vector<std::string>>& cells)
{
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < headers.size(); ++column) {
        std::size_t width = headers[column].size();
        for (const std::vector<std::string>& line : cells) {
            width = std::max(width, line[column].size());
        }
        widths.push_back(width);
    }
    std::vector<std::vector<std::string>> lines(1, headers);
    lines.insert(lines.end(), cells.begin(), cells.end());
    std::string out;
    for (const std::vector<std::string>& line : lines) {
        for (std::size_t column = 0; column < line.size(); ++column) {
            const bool last = column + 1 == line.size();
            out += last ? line[column] : padded(line[column], widths[column]) + "  ";
        }
        out += '\n';
    }
    return out;
}

std::string formatListJson(const ListRow& row)
{
    return "{\"name\":" + jsonString(row.name) + ",\"port\":" + std::to_string(row.port) +
           ",\"pid\":" + std::to_string(row.pid) + ",\"process\":" + jsonString(row.process) +
           ",\"queued\":" + std::to_string(row.queued) + ",\"max_queued\":" + std::to_string(row.maxQueued) +
           ",\"rx_queue_bytes\":" + std::to_string(row.rxQueueBytes) + ",\"drops\":" + std::to_string(row.drops) +
           "}";
}

std::string formatMessageLine(const MessageView& message)
{
    return "source=" + escapeBytes(message.source) + " callback=" + escapeBytes(message.callback) +
           " type=" + std::to_string(message.type) + " request_id=" + std::to_string(message.requestId) +
           " length=" + std::to_string(message.data.size()) + " data=\"" + escapeBytes(message.data) + "\"";
}

std::string formatMessageJson(const MessageView& message)
{
    return "{\"source\":" + jsonString(message.source) + ",\"callback\":" + jsonString(message.callback) +
           ",\"type\":" + std::to_string(message.type) + ",\"request_id\":" + std::to_string(message.requestId) +
           ",\"length\":" + std::to_string(message.data.size()) + ",\"data\":" + jsonString(message.data) + "}";
}

}  // namespace cli
