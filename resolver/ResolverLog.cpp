#include "ResolverLog.h"

#include <syslog.h>

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

namespace resolver {
namespace log {

namespace {

StderrSink builtInSink;
Sink* currentSink = &builtInSink;
Level currentLevel = LEVEL_NOTICE;
bool timestamps = false;

int syslogPriority(Level level)
{
    switch (level) {
    case LEVEL_ERROR:
        return LOG_ERR;
    case LEVEL_WARNING:
        return LOG_WARNING;
    case LEVEL_NOTICE:
        return LOG_NOTICE;
    case LEVEL_INFO:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

const std::size_t QUOTED_NAME_LIMIT = 120;

}  // namespace

Sink::~Sink() = default;

void StderrSink::write(Level /*level*/, const std::string& line)
{
    if (timestamps) {
        timeval now;
        gettimeofday(&now, nullptr);
        const time_t seconds = now.tv_sec;
        tm local;
        localtime_r(&seconds, &local);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
        std::fprintf(stderr, "%s.%03ld commschannel-resolver: %s\n", stamp, static_cast<long>(now.tv_usec / 1000),
                     line.c_str());
        std::fflush(stderr);
        return;
    }
    std::fprintf(stderr, "commschannel-resolver: %s\n", line.c_str());
    std::fflush(stderr);
}

SyslogSink::SyslogSink() { openlog("commschannel-resolver", LOG_PID | LOG_NDELAY, LOG_DAEMON); }

SyslogSink::~SyslogSink() { closelog(); }

void SyslogSink::write(Level level, const std::string& line)
{
    syslog(syslogPriority(level), "%s", line.c_str());
}

void setSink(Sink* sink) { currentSink = sink != nullptr ? sink : &builtInSink; }

Sink& sink() { return *currentSink; }

void setLevel(Level level) { currentLevel = level; }

void setTimestamps(bool on) { timestamps = on; }

bool enabled(Level level) { return level <= currentLevel; }

void write(Level level, const char* format, ...)
{
    if (!enabled(level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    va_list measuring;
    va_copy(measuring, arguments);
    const int needed = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    if (needed < 0) {
        va_end(arguments);
        return;
    }
    std::vector<char> text(static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    currentSink->write(level, std::string(text.data(), static_cast<std::size_t>(needed)));
}

std::string quoted(const std::string& name)
{
    static const char HEX[] = "0123456789abcdef";
    std::string out("\"");
    for (std::size_t i = 0; i < name.size() && i < QUOTED_NAME_LIMIT; ++i) {
        const unsigned char byte = static_cast<unsigned char>(name[i]);
        if (byte >= 0x20 && byte < 0x7f && byte != '"' && byte != '\\') {
            out += static_cast<char>(byte);
        } else {
            out += "\\x";
            out += HEX[byte >> 4];
            out += HEX[byte & 0x0f];
        }
    }
    out += '"';
    if (name.size() > QUOTED_NAME_LIMIT) {
        out += "...";
    }
    return out;
}

}  // namespace log
}  // namespace resolver
