// commschannel monitor: every message on the loopback interface between
// channels and between processes and the resolver, decoded, one a line.
//
// One thread. SIGINT and SIGTERM are blocked and read from a signalfd that
// is polled beside the capture socket, so a signal ends the loop between two
// packets and the capture file is closed whole.
#include "CliCommands.h"
#include "CliSupport.h"
#include "LoopbackCapture.h"
#include "MonitorSession.h"
#include "PcapWriter.h"
#include "ResolverClient.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

namespace cli {

namespace {

struct MonitorOutput {
    bool json;
    bool lines;  // false when standard output carries the capture file
    PcapWriter pcap;
    long printed = 0;
};

int blockStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

// Seeds the names from the resolver's table, then throws away what the
// capture saw meanwhile (the question and answer themselves among it).
void learnCurrentTable(LoopbackCapture& capture, MonitorSession& session)
{
    std::map<std::string, int> channels;
    std::string error;
    if (!resolver::fetchChannels(COMMSCHANNEL_RESOLVER_PORT, &channels, &error)) {
        std::fprintf(stderr, "commschannel monitor: %s; names are learnt from the traffic\n", error.c_str());
    }
    session.names().reset(channels);
    capture.drain();
}

bool report(MonitoredMessage& message, MonitorOutput& output)
{
    for (const CapturedPacket& packet : message.packets) {
        if (output.pcap.isOpen() && !output.pcap.write(packet)) {
            return false;
        }
    }
    ++output.printed;
    if (!output.lines) {
        return true;
    }
    const std::string line =
        (output.json ? formatMonitorJson(message.event) : formatMonitorLine(message.event)) + "\n";
    return std::fwrite(line.data(), 1, line.size(), stdout) == line.size() && std::fflush(stdout) == 0;
}

// Takes every waiting packet. False when output failed or the count is
// reached; *status tells which.
bool takePackets(LoopbackCapture& capture, MonitorSession& session, MonitorOutput& output, long count,
                 int* status)
{
    CapturedPacket packet;
    std::vector<MonitoredMessage> messages;
    while (capture.receive(&packet) == 1) {
        messages.clear();
        session.handle(packet, &messages);
        for (MonitoredMessage& message : messages) {
            if (!report(message, output)) {
                *status = fail(COMMAND_MONITOR, "cannot write the output");
                return false;
            }
            if (count > 0 && output.printed >= count) {
                return false;
            }
        }
    }
    return true;
}

int captureUntilStopped(LoopbackCapture& capture, MonitorSession& session, MonitorOutput& output, long count,
                        int signals)
{
    int status = EXIT_OK;
    pollfd watched[2] = {{capture.fd(), POLLIN, 0}, {signals, POLLIN, 0}};
    for (;;) {
        if (poll(watched, 2, -1) < 0 && errno != EINTR) {
            return fail(COMMAND_MONITOR, std::string("cannot wait for packets: ") + std::strerror(errno));
        }
        if (watched[1].revents != 0) {
            return status;
        }
        if (watched[0].revents != 0 && !takePackets(capture, session, output, count, &status)) {
            return status;
        }
    }
}

}  // namespace

int runMonitor(const CliOptions& options)
{
    if (geteuid() != 0) {
        return fail(COMMAND_MONITOR, "must run as root (capturing on the loopback interface needs it)");
    }
    const int signals = blockStopSignals();
    signal(SIGPIPE, SIG_IGN);
    int err = 0;
    LoopbackCapture capture = LoopbackCapture::open(&err);
    if (!capture.valid() || signals < 0) {
        return fail(COMMAND_MONITOR, std::string("cannot capture on lo: ") + std::strerror(err));
    }
    MonitorSession session(COMMSCHANNEL_RESOLVER_PORT,
                           std::set<std::string>(options.names.begin(), options.names.end()));
    MonitorOutput output{options.json, options.pcapPath != "-", PcapWriter()};
    if (!options.pcapPath.empty() && !output.pcap.open(options.pcapPath)) {
        return fail(COMMAND_MONITOR, "cannot write " + options.pcapPath + ": " + std::strerror(errno));
    }
    learnCurrentTable(capture, session);
    std::fputs("listening on lo\n", stderr);
    std::fflush(stderr);
    int status = captureUntilStopped(capture, session, output, options.count, signals);
    if (!output.pcap.close() && status == EXIT_OK) {
        status = fail(COMMAND_MONITOR, "cannot write " + options.pcapPath);
    }
    close(signals);
    return status;
}

}  // namespace cli
