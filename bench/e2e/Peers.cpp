// The peer side of the multi-process scenarios. The benchmark starts this
// program again as "--peer ROLE key=value..."; the peer sets itself up,
// prints "READY [detail]" on standard output, serves until its standard
// input ends, and exits 0 when everything it did succeeded.
//
//   lib-echo   name= idle= mem=   channel "name" (created first, then idle
//              idle channels); answers every message with the same data:
//              by request id to the callback channel, else to the source.
//              mem=1 prints "MEM <peak bytes added> <data bytes>" after
//              each answer.
//   udp-echo   idle=              raw UDP echo; READY carries its port.
//   lib-stream name= target= rate= seconds= size= pacing= [count=]
//   udp-stream port= rate= seconds= size= pacing= [count=]
//              READY carries "sndbuf=<SO_SNDBUF of the sending socket>";
//              after "GO" on standard input, sends sequenced messages at
//              the rate (0: unpaced; pacing sleep or spin) for the time,
//              or, with count= above 0, exactly count messages unpaced,
//              then prints
//              "DONE sent=<n> failed=<n> elapsed_us=<t>".
//   lib-sink   name=              channel "name" that takes and drops every
//              message, plus a raw UDP echo whose port READY carries.
//   first-send target= udpport=   a fresh process: times its channel's
//              construction, its first and later sends to target and one
//              raw UDP round trip, prints "RESULT ..." and exits.
//   fork-parent target= udpport=
//              never calls the library itself. For each "FORK" on standard
//              input it forks a child (no exec) that constructs a channel,
//              sends to target and times one raw UDP round trip, as
//              first-send does; the child prints "RESULT ..." and exits,
//              the parent then prints "CHILD <exit status>".
#include "Scenario.h"

#include "Baselines.h"
#include "LibSupport.h"
#include "ProcessMemory.h"
#include "Stats.h"
#include "Timing.h"

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace bench {

namespace {

// A peer whose parent vanished without closing its input still ends.
const unsigned int PEER_LIFETIME_SECONDS = 1800;
// After its input ends, a peer gets this long to finish on its own.
const unsigned int PEER_GRACE_SECONDS = 20;

typedef std::map<std::string, std::string> PeerArgs;

std::string text(const PeerArgs& args, const std::string& key)
{
    PeerArgs::const_iterator it = args.find(key);
    return it != args.end() ? it->second : "";
}

long number(const PeerArgs& args, const std::string& key) { return std::atol(text(args, key).c_str()); }

void ready(const std::string& detail)
{
    std::printf("READY %s\n", detail.c_str());
    std::fflush(stdout);
}

// Reads one line of standard input into line. False at its end.
bool readLine(std::string& line)
{
    char buffer[256];
    if (std::fgets(buffer, sizeof buffer, stdin) == nullptr) {
        return false;
    }
    line = buffer;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return true;
}

// Calls onEnd on a thread of its own once standard input ends, then arms
// the grace alarm. The thread is detached: the process ends with it.
void onInputEnd(std::function<void()> onEnd)
{
    std::thread([onEnd] {
        std::string line;
        while (readLine(line)) {
        }
        onEnd();
        alarm(PEER_GRACE_SECONDS);
    }).detach();
}

std::vector<std::unique_ptr<CommsChannel>> openIdleChannels(long count)
{
    std::vector<std::unique_ptr<CommsChannel>> idle;
    for (long i = 0; i < count; ++i) {
        idle.emplace_back(new CommsChannel(uniqueName("idle")));
    }
    return idle;
}

std::vector<int> openIdleSockets(long count)
{
    std::vector<int> idle;
    for (long i = 0; i < count; ++i) {
        idle.push_back(openUdpSocket(0));
    }
    return idle;
}

int libEcho(const PeerArgs& args)
{
    CommsChannel channel(text(args, "name"));
    const std::vector<std::unique_ptr<CommsChannel>> idle = openIdleChannels(number(args, "idle"));
    const bool reportMemory = number(args, "mem") != 0;
    onInputEnd([&channel] { channel.shutdown(); });

    long long residentBefore = 0;
    if (reportMemory) {
        residentBefore = residentBytes();
        resetPeakResident();
    }
    ready("");
    int failures = 0;
    for (;;) {
        int dataLength = 0;
        {
            CommsChannelDataContainerMessage request;
            if (channel.receiveMsg(request) != 1) {
                break;
            }
            dataLength = request.getDataLength();
            int sent = 0;
            if (request.requestId() != 0) {
                CommsChannelDataContainerMessage reply;
                reply.setChannel(request.callbackChannel());
                reply.setRequestId(request.requestId());
                int length = 0;
                const char* data = request.getData(&length);
                reply.setData(data, length);
                sent = channel.sendMsg(reply);
            } else {
                // The reply is sent straight from the received message's
                // bytes, as an application that cares about memory would.
                int length = 0;
                char* data = request.getData(&length);
                sent = channel.sendMsg(request.sourceChannel(), data, length);
            }
            if (sent != 1) {
                std::fprintf(stderr, "lib-echo: reply to '%s' not sent\n", request.sourceChannel().c_str());
                ++failures;
            }
        }
        if (reportMemory) {
            const long long added = peakResidentBytes() - residentBefore;
            residentBefore = residentBytes();
            resetPeakResident();
            std::printf("MEM %lld %d\n", added, dataLength);
            std::fflush(stdout);
        }
    }
    return failures == 0 ? 0 : 1;
}

int udpEcho(const PeerArgs& args)
{
    const int fd = openUdpSocket(0);
    const std::vector<int> idle = openIdleSockets(number(args, "idle"));
    if (fd < 0) {
        return 1;
    }
    onInputEnd([] { _exit(0); });
    ready(std::to_string(udpPort(fd)));
    std::vector<char> buffer(65536);
    for (;;) {
        int source = 0;
        const long n = udpReceive(fd, buffer.data(), buffer.size(), -1, &source);
        if (n >= 0) {
            udpSend(fd, source, buffer.data(), static_cast<std::size_t>(n));
        }
    }
}

// The body shared by both stream roles: waits for "GO", paces the sends,
// reports. send(buffer, length) answers whether the message went out.
int stream(const PeerArgs& args, const std::function<bool(char*, int)>& send)
{
    const double rate = static_cast<double>(number(args, "rate"));
    const double seconds = std::atof(text(args, "seconds").c_str());
    const int size = static_cast<int>(number(args, "size"));
    const long count = number(args, "count");
    std::string line;
    if (!readLine(line) || line != "GO") {
        return 1;
    }
    std::vector<char> buffer(static_cast<std::size_t>(size));
    Pacing pacing = Pacing::SLEEP;
    if (!parsePacing(text(args, "pacing"), pacing)) {
        std::fprintf(stderr, "stream: pacing '%s' unknown\n", text(args, "pacing").c_str());
        return 1;
    }
    Pacer pacer(count > 0 ? 0 : rate, pacing);
    pacer.start();
    const std::int64_t start = nowNs();
    const std::int64_t end = start + static_cast<std::int64_t>(seconds * 1e9);
    std::uint64_t sent = 0;
    std::uint64_t failed = 0;
    while (count > 0 ? sent < static_cast<std::uint64_t>(count) : nowNs() < end) {
        pacer.waitFor(sent);
        writeSequenced(buffer.data(), buffer.size(), sent);
        if (!send(buffer.data(), size)) {
            ++failed;
        }
        ++sent;
    }
    std::printf("DONE sent=%llu failed=%llu elapsed_us=%.0f\n", static_cast<unsigned long long>(sent),
                static_cast<unsigned long long>(failed), nsToUs(nowNs() - start));
    std::fflush(stdout);
    while (readLine(line)) {
    }
    return 0;
}

int libStream(const PeerArgs& args)
{
    CommsChannel channel(text(args, "name"));
    const std::string target = text(args, "target");
    // The first send resolves the target; it is not part of the stream.
    if (channel.sendMsg(target, std::string("warm-up")) != 1) {
        std::fprintf(stderr, "lib-stream: '%s' unknown\n", target.c_str());
        return 1;
    }
    ready("sndbuf=" + std::to_string(channelSocketOption(channel.channelName(), SO_SNDBUF)));
    return stream(args, [&channel, &target](char* data, int length) {
        return channel.sendMsg(target, data, length) == 1;
    });
}

int udpStream(const PeerArgs& args)
{
    // The same buffer sizes as a channel's socket.
    const int fd = openUdpSocket(65535);
    const int port = static_cast<int>(number(args, "port"));
    if (fd < 0) {
        return 1;
    }
    ready("sndbuf=" + std::to_string(socketOption(fd, SO_SNDBUF)));
    const int result = stream(args, [fd, port](char* data, int length) {
        return udpSend(fd, port, data, static_cast<std::size_t>(length));
    });
    close(fd);
    return result;
}

int libSink(const PeerArgs& args)
{
    CommsChannel channel(text(args, "name"));
    const int fd = openUdpSocket(0);
    if (fd < 0) {
        return 1;
    }
    std::thread([fd] {
        char buffer[65536];
        for (;;) {
            int source = 0;
            const long n = udpReceive(fd, buffer, sizeof buffer, -1, &source);
            if (n >= 0) {
                udpSend(fd, source, buffer, static_cast<std::size_t>(n));
            }
        }
    }).detach();
    onInputEnd([&channel] { channel.shutdown(); });
    ready(std::to_string(udpPort(fd)));
    std::string data;
    while (channel.receiveMsg(data) == 1) {
    }
    return 0;
}

// The body of first-send and of fork-parent's children: prints
// "RESULT <construct us> <first send us> <later send us> <UDP round trip us>"
// and answers the exit status.
int firstSend(const PeerArgs& args)
{
    const std::string target = text(args, "target");
    const int udpEchoPort = static_cast<int>(number(args, "udpport"));
    const std::string payload = patterned(64, 1);
    const std::string name = uniqueName("fresh");

    const std::int64_t t0 = nowNs();
    CommsChannel channel(name);
    const std::int64_t t1 = nowNs();
    const int firstResult = channel.sendMsg(target, payload);
    const std::int64_t t2 = nowNs();
    // Sends 2 to 20; "later" is the median of the last ten.
    std::vector<double> later;
    int laterFailures = 0;
    for (int i = 2; i <= 20; ++i) {
        const std::int64_t start = nowNs();
        laterFailures += channel.sendMsg(target, payload) == 1 ? 0 : 1;
        if (i > 10) {
            later.push_back(nsToUs(nowNs() - start));
        }
    }

    const int fd = openUdpSocket(0);
    char reply[128];
    const std::int64_t u0 = nowNs();
    const bool udpOk = fd >= 0 && udpSend(fd, udpEchoPort, payload.data(), payload.size()) &&
                       udpReceive(fd, reply, sizeof reply, 5000, nullptr) == 64;
    const std::int64_t u1 = nowNs();
    if (fd >= 0) {
        close(fd);
    }
    if (firstResult != 1 || laterFailures != 0 || !udpOk) {
        std::printf("RESULT failed first=%d later_failures=%d udp=%d\n", firstResult, laterFailures,
                    udpOk ? 1 : 0);
        std::fflush(stdout);
        return 1;
    }
    std::printf("RESULT %.1f %.1f %.1f %.1f\n", nsToUs(t1 - t0), nsToUs(t2 - t1), median(later), nsToUs(u1 - u0));
    std::fflush(stdout);
    return 0;
}

int forkParent(const PeerArgs& args)
{
    // Nothing here may call the library: the children must start from a
    // process that never used it.
    ready("");
    std::string line;
    while (readLine(line)) {
        if (line != "FORK") {
            continue;
        }
        std::fflush(stdout);
        const pid_t parent = getpid();
        const pid_t child = fork();
        if (child < 0) {
            std::printf("RESULT failed fork\n");
            std::fflush(stdout);
            return 1;
        }
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(127);
            }
            alarm(PEER_GRACE_SECONDS + 40);
            // A normal exit, destructors and all, as a real child's.
            std::exit(firstSend(args));
        }
        int status = 0;
        pid_t reaped = -1;
        while ((reaped = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
        }
        if (reaped != child) {
            std::printf("CHILD lost\n");
            std::fflush(stdout);
            return 1;
        }
        std::printf("CHILD %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
        std::fflush(stdout);
    }
    return 0;
}

}  // namespace

int runPeer(int argc, char** argv)
{
    alarm(PEER_LIFETIME_SECONDS);
    if (argc < 1) {
        return 2;
    }
    const std::string role = argv[0];
    PeerArgs args;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const std::size_t equals = arg.find('=');
        if (equals != std::string::npos) {
            args[arg.substr(0, equals)] = arg.substr(equals + 1);
        }
    }
    if (role == "lib-echo") {
        return libEcho(args);
    } else if (role == "udp-echo") {
        return udpEcho(args);
    } else if (role == "lib-stream") {
        return libStream(args);
    } else if (role == "udp-stream") {
        return udpStream(args);
    } else if (role == "lib-sink") {
        return libSink(args);
    } else if (role == "first-send") {
        return firstSend(args);
    } else if (role == "fork-parent") {
        return forkParent(args);
    }
    std::fprintf(stderr, "commschannel-bench-e2e: unknown peer role '%s'\n", role.c_str());
    return 2;
}

}  // namespace bench
