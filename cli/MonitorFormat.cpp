#include "CliText.h"
#include "MonitorEvent.h"

#include <time.h>

#include <cstdio>

namespace cli {

namespace {

std::string clockTime(const timeval& time)
{
    const time_t seconds = time.tv_sec;
    tm local;
    localtime_r(&seconds, &local);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06ld", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<long>(time.tv_usec));
    return text;
}

std::string epochTime(const timeval& time)
{
    char text[40];
    std::snprintf(text, sizeof text, "%lld.%06ld", static_cast<long long>(time.tv_sec),
                  static_cast<long>(time.tv_usec));
    return text;
}

std::string rowsText(const std::vector<MonitorRow>& rows)
{
    std::string text("[");
    for (const MonitorRow& row : rows) {
        text += (text.size() > 1 ? " " : "") + std::string(row.added ? "+" : "-") + escapeBytes(row.name) + ":" +
                std::to_string(row.port);
    }
    return text + "]";
}

std::string rowsJson(const std::vector<MonitorRow>& rows)
{
    std::string text("[");
    for (const MonitorRow& row : rows) {
        text += (text.size() > 1 ? "," : "") + std::string("{\"change\":") +
                (row.added ? "\"added\"" : "\"removed\"") + ",\"name\":" + jsonString(row.name) +
                ",\"port\":" + std::to_string(row.port) + "}";
    }
    return text + "]";
}

}  // namespace

std::string formatMonitorLine(const MonitorEvent& e)
{
    std::string line = clockTime(e.time) + " " + e.kind + " " + std::to_string(e.sourcePort) + "->" +
                       std::to_string(e.destinationPort);
    if (e.hasSource) {
        line += " source=" + escapeBytes(e.source);
    }
    if (e.hasChannel) {
        line += " channel=" + escapeBytes(e.channel);
    }
    if (e.hasCallbackAndType) {
        line += " callback=" + escapeBytes(e.callback) + " type=" + std::to_string(e.type);
    }
    if (e.hasRequestId) {
        line += " request_id=" + std::to_string(e.requestId);
    }
    if (e.hasName) {
        line += " name=" + escapeBytes(e.name);
    }
    if (e.hasPort) {
        line += " port=" + std::to_string(e.port);
    }
    if (e.hasRows) {
        line += " rows=" + rowsText(e.rows);
    }
    if (e.hasLength) {
        line += " length=" + std::to_string(e.length);
    }
    if (e.hasData) {
        line += " data=\"" + escapeBytes(e.data) + "\"";
    }
    if (!e.spoolPath.empty()) {
        line += " spool_path=" + escapeBytes(e.spoolPath);
    }
    if (e.pieces > 0) {
        line += " pieces=" + std::to_string(e.pieces);
    }
    if (!e.reason.empty()) {
        line += " reason=\"" + escapeBytes(e.reason) + "\"";
    }
    return line;
}

std::string formatMonitorJson(const MonitorEvent& e)
{
    std::string json = "{\"time\":" + epochTime(e.time) + ",\"kind\":" + jsonString(e.kind);
    if (e.hasSource) {
        json += ",\"source\":" + jsonString(e.source);
    }
    if (e.hasChannel) {
        json += ",\"channel\":" + jsonString(e.channel);
    }
    if (e.hasCallbackAndType) {
        json += ",\"callback\":" + jsonString(e.callback) + ",\"type\":" + std::to_string(e.type);
    }
    if (e.hasRequestId) {
        json += ",\"request_id\":" + std::to_string(e.requestId);
    }
    if (e.hasLength) {
        json += ",\"length\":" + std::to_string(e.length);
    }
    if (e.hasData) {
        json += ",\"data\":" + jsonString(e.data);
    }
    json += ",\"src_port\":" + std::to_string(e.sourcePort) + ",\"dst_port\":" + std::to_string(e.destinationPort);
    if (!e.spoolPath.empty()) {
        json += ",\"spool_path\":" + jsonString(e.spoolPath);
    }
    if (e.pieces > 0) {
        json += ",\"pieces\":" + std::to_string(e.pieces);
    }
    if (e.hasName) {
        json += ",\"name\":" + jsonString(e.name);
    }
    if (e.hasPort) {
        json += ",\"port\":" + std::to_string(e.port);
    }
    if (e.hasRows) {
        json += ",\"rows\":" + rowsJson(e.rows);
    }
    if (!e.reason.empty()) {
        json += ",\"reason\":" + jsonString(e.reason);
    }
    return json + "}";
}

}  // namespace cli
