// The resolver's log: five levels and one replaceable sink. main() chooses
// standard error or the system log; tests install a sink of their own to
// capture lines or to silence them. Lines above the current level are
// dropped before they are formatted.
//
// Thread safety: none. The resolver runs on one thread, and so must every
// caller of these functions.
//
// Usage:
//   resolver::log::setLevel(resolver::log::LEVEL_INFO);
//   resolver::log::write(resolver::log::LEVEL_INFO, "locator %d registered", port);
#ifndef COMMSCHANNEL_RESOLVER_LOG_H
#define COMMSCHANNEL_RESOLVER_LOG_H

#include <string>

namespace resolver {
namespace log {

// Ordered from most to least important, as in syslog.
enum Level {
    LEVEL_ERROR = 0,
    LEVEL_WARNING = 1,
    LEVEL_NOTICE = 2,
    LEVEL_INFO = 3,
    LEVEL_DEBUG = 4
};

class Sink {
public:
    virtual ~Sink();
    // Receives one finished line without a trailing newline.
    virtual void write(Level level, const std::string& line) = 0;
};

// "commschannel-resolver: <line>" on standard error, flushed at once; with
// timestamps on, each line starts with the local date and time to the
// millisecond ("2024-05-31 14:02:07.125 commschannel-resolver: ...").
// The system log stamps its records itself.
class StderrSink : public Sink {
public:
    void write(Level level, const std::string& line) override;
};

// The system log, ident "commschannel-resolver", facility daemon. Opens the
// log on construction and closes it on destruction.
class SyslogSink : public Sink {
public:
    SyslogSink();
    ~SyslogSink() override;
    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;
    void write(Level level, const std::string& line) override;
};

// Installs the sink for every later line. The caller keeps ownership and
// keeps the sink alive until another is installed; null goes back to the
// built-in standard error sink.
void setSink(Sink* sink);
// The sink that lines go to now (never null).
Sink& sink();

// Whether StderrSink stamps its lines with the time; off by default.
void setTimestamps(bool on);

// Lines of this level and more important ones are written. The default is
// LEVEL_NOTICE: errors, warnings and the start-up line.
void setLevel(Level level);
bool enabled(Level level);

// Formats and writes one line when its level is enabled.
void write(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// A channel name as it may appear in a log line: in double quotes, bytes
// outside printable ASCII as \xNN, cut after 120 bytes. Names come from other
// processes and may hold anything.
std::string quoted(const std::string& name);

}  // namespace log
}  // namespace resolver

#endif
