// Scenarios d and h: one-way streams of 64-byte sequenced messages from
// another process. d paces them at fixed rates (and unpaced) for a fixed
// time; h sends a fixed count as fast as the sender can and measures the
// messages delivered per second. The receiving application thread takes
// every message with receiveMsg; after the sender is done and a short
// drain, the sequence numbers tell what was lost, reordered or duplicated.
// The baseline is the same stream over raw UDP between sockets whose
// SO_RCVBUF and SO_SNDBUF are set to 65535 bytes, like a channel's; both
// scenarios report the buffer sizes the kernel gave on each side.
#include "Scenario.h"

#include "Baselines.h"
#include "LibSupport.h"
#include "PeerProcess.h"
#include "RoundTrip.h"
#include "Timing.h"

#include "CommsChannel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <thread>
#include <vector>

namespace bench {

namespace {

const int MESSAGE_SIZE = 64;
// SO_RCVBUF and SO_SNDBUF that a channel's socket asks for; the raw
// sockets of the baseline ask for the same.
const int SOCKET_BUFFER_BYTES = 65535;
const int READY_TIMEOUT_MS = 30000;
// The stream is over when nothing arrived for this long after the sender
// finished, or at the latest after DRAIN_LIMIT_NS.
const std::int64_t QUIET_NS = 300000000;
const std::int64_t DRAIN_LIMIT_NS = 5000000000LL;
// A sequence number above this is garbage, not a message we sent.
const std::uint64_t SEQUENCE_LIMIT = 100000000;

// Sequence bookkeeping of one stream. One thread feeds it; the result is
// read after that thread is joined.
class SequenceTracker {
public:
    void note(const char* data, std::size_t length)
    {
        std::uint64_t sequence = 0;
        if (length != MESSAGE_SIZE || !readSequenced(data, length, sequence) || sequence >= SEQUENCE_LIMIT) {
            ++m_damaged;
            return;
        }
        if (sequence >= m_seen.size()) {
            m_seen.resize(std::max<std::size_t>(sequence + 1, m_seen.size() * 2), 0);
        }
        if (m_seen[sequence] != 0) {
            ++m_duplicated;
        } else {
            m_seen[sequence] = 1;
            ++m_distinct;
            if (m_any && sequence < m_highest) {
                ++m_reordered;
            }
        }
        m_highest = m_any ? std::max(m_highest, sequence) : sequence;
        const std::int64_t now = nowNs();
        if (!m_any) {
            m_firstNs = now;
        }
        m_any = true;
        m_lastNs = now;
    }

    // Distinct messages per second between the first and the last arrival;
    // 0 with fewer than two arrivals.
    double deliveredPerSecond() const
    {
        const std::int64_t span = m_lastNs - m_firstNs;
        if (m_distinct < 2 || span <= 0) {
            return 0;
        }
        return static_cast<double>(m_distinct - 1) / (static_cast<double>(span) / 1e9);
    }

    // Distinct numbers below sent that arrived.
    std::uint64_t receivedBelow(std::uint64_t sent) const
    {
        std::uint64_t count = 0;
        for (std::size_t i = 0; i < m_seen.size() && i < sent; ++i) {
            count += m_seen[i];
        }
        return count;
    }

    // Runs of consecutive missing numbers below sent, and the longest one:
    // a few long runs mean the reader stalled, many short ones that it
    // could not keep up.
    void lossRuns(std::uint64_t sent, std::uint64_t& runs, std::uint64_t& longest) const
    {
        runs = 0;
        longest = 0;
        std::uint64_t current = 0;
        for (std::uint64_t i = 0; i < sent; ++i) {
            if (i < m_seen.size() && m_seen[i] != 0) {
                current = 0;
                continue;
            }
            if (current++ == 0) {
                ++runs;
            }
            longest = std::max(longest, current);
        }
    }

    std::vector<std::uint8_t> m_seen;
    std::uint64_t m_distinct = 0;
    std::uint64_t m_duplicated = 0;
    std::uint64_t m_reordered = 0;
    std::uint64_t m_damaged = 0;
    std::uint64_t m_highest = 0;
    bool m_any = false;
    std::int64_t m_firstNs = 0;
    std::atomic<std::int64_t> m_lastNs{0};
};

// One stream: a rate (0 unpaced) for some seconds, or count messages
// unpaced when count is above 0.
struct StreamPlan {
    double rate;
    double seconds;
    long count;
    Pacing pacing;

    // The peer arguments that say so.
    std::vector<std::string> peerArgs() const
    {
        return {"rate=" + std::to_string(static_cast<long>(rate)), "seconds=" + std::to_string(seconds),
                "count=" + std::to_string(count), "size=" + std::to_string(MESSAGE_SIZE),
                std::string("pacing=") + pacingName(pacing)};
    }

    // The longest the sender may take before it counts as stuck: a counted
    // stream may run as slowly as 10,000 msgs/s.
    int deadlineMs() const
    {
        return static_cast<int>(count > 0 ? static_cast<double>(count) / 10.0 : seconds * 1000) + 30000;
    }
};

struct StreamResult {
    std::uint64_t sent = 0;
    std::uint64_t failed = 0;
    double elapsedUs = 0;
    int receiveBuffer = -1;  // SO_RCVBUF of the receiving socket, as the kernel reports it
    int sendBuffer = -1;     // SO_SNDBUF of the sending socket
};

// "sndbuf=<n>" from a stream peer's READY line; -1 when absent.
int sendBufferOf(const std::string& ready)
{
    int value = -1;
    return std::sscanf(ready.c_str(), "sndbuf=%d", &value) == 1 ? value : -1;
}

std::vector<std::string> concat(std::vector<std::string> head, const std::vector<std::string>& tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// Lets the peer stream, waits for its report, then for the drain.
StreamResult driveStream(PeerProcess& peer, SequenceTracker& tracker, const StreamPlan& plan, const std::string& what)
{
    if (!peer.send("GO")) {
        throw ScenarioFailure(what + ": cannot start the stream");
    }
    std::string done;
    if (!peer.expect("DONE", plan.deadlineMs(), done)) {
        failWithoutReply(peer, what);
    }
    StreamResult result;
    unsigned long long sent = 0;
    unsigned long long failed = 0;
    if (std::sscanf(done.c_str(), "sent=%llu failed=%llu elapsed_us=%lf", &sent, &failed, &result.elapsedUs) != 3) {
        throw ScenarioFailure(what + ": unreadable report '" + done + "'");
    }
    result.sent = sent;
    result.failed = failed;
    const std::int64_t finished = nowNs();
    for (;;) {
        usleep(20000);
        const std::int64_t now = nowNs();
        if ((now - finished > QUIET_NS && now - tracker.m_lastNs > QUIET_NS) || now - finished > DRAIN_LIMIT_NS) {
            break;
        }
    }
    return result;
}

StreamResult libraryStream(const StreamPlan& plan, SequenceTracker& tracker)
{
    CommsChannel receiver(uniqueName("stream-rx"));
    std::thread application([&] {
        std::string data;
        while (receiver.receiveMsg(data) == 1) {
            if (data != "warm-up") {
                tracker.note(data.data(), data.size());
            }
        }
    });
    PeerProcess peer;
    StreamResult result;
    try {
        std::string ready;
        startPeer(peer,
                  concat({"lib-stream", "name=" + uniqueName("stream-tx"), "target=" + receiver.channelName()},
                         plan.peerArgs()),
                  READY_TIMEOUT_MS, &ready);
        // The peer's first send resolved the receiver: the resolver knows it.
        const int receiveBuffer = channelSocketOption(receiver.channelName(), SO_RCVBUF);
        result = driveStream(peer, tracker, plan, "library stream");
        result.receiveBuffer = receiveBuffer;
        result.sendBuffer = sendBufferOf(ready);
    } catch (...) {
        receiver.shutdown();
        application.join();
        throw;
    }
    receiver.shutdown();
    application.join();
    peer.stop(10000);
    return result;
}

StreamResult udpStream(const StreamPlan& plan, SequenceTracker& tracker)
{
    const int fd = openUdpSocket(SOCKET_BUFFER_BYTES);
    if (fd < 0) {
        throw ScenarioFailure("no UDP socket");
    }
    std::atomic<bool> stop{false};
    std::thread application([&] {
        // One recv per datagram while any is queued; poll only when none is,
        // so that the reader makes no more system calls than it must.
        char buffer[2048];
        while (!stop) {
            long n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n < 0) {
                n = udpReceive(fd, buffer, sizeof buffer, 50, nullptr);
            }
            if (n >= 0) {
                tracker.note(buffer, static_cast<std::size_t>(n));
            }
        }
    });
    PeerProcess peer;
    StreamResult result;
    try {
        std::string ready;
        startPeer(peer, concat({"udp-stream", "port=" + std::to_string(udpPort(fd))}, plan.peerArgs()),
                  READY_TIMEOUT_MS, &ready);
        result = driveStream(peer, tracker, plan, "UDP stream");
        result.receiveBuffer = socketOption(fd, SO_RCVBUF);
        result.sendBuffer = sendBufferOf(ready);
    } catch (...) {
        stop = true;
        application.join();
        close(fd);
        throw;
    }
    stop = true;
    application.join();
    close(fd);
    peer.stop(10000);
    return result;
}

// The socket buffers of both ends, under "<id> socket buffers": the same
// figure on both sides shows that the baseline's sockets are as small as
// the library's. A buffer that could not be read is left out.
void addBuffers(Report& report, const std::string& id, Side side, int rep, const StreamResult& result)
{
    const std::string scenario = id + " socket buffers";
    if (result.receiveBuffer > 0) {
        report.add(id, scenario, "receiver SO_RCVBUF B", side, rep, result.receiveBuffer);
    } else {
        std::fprintf(stderr, "%s: the receiving socket's buffer could not be read\n", scenario.c_str());
    }
    if (result.sendBuffer > 0) {
        report.add(id, scenario, "sender SO_SNDBUF B", side, rep, result.sendBuffer);
    } else {
        std::fprintf(stderr, "%s: the sending socket's buffer could not be read\n", scenario.c_str());
    }
}

// Throws when the stream cannot be judged; answers the lost count.
std::uint64_t checkStream(const std::string& scenario, const StreamResult& result, const SequenceTracker& tracker)
{
    if (tracker.m_damaged != 0) {
        throw ScenarioFailure(scenario + ": " + std::to_string(tracker.m_damaged) + " damaged messages");
    }
    if (result.sent == 0) {
        throw ScenarioFailure(scenario + ": nothing was sent");
    }
    if (result.failed != 0) {
        std::fprintf(stderr, "%s: %" PRIu64 " sends failed at the sender (counted as lost)\n", scenario.c_str(),
                     result.failed);
    }
    return result.sent - tracker.receivedBelow(result.sent);
}

void addStream(Report& report, const std::string& scenario, Side side, int rep, const StreamResult& result,
               const SequenceTracker& tracker)
{
    const std::uint64_t lost = checkStream(scenario, result, tracker);
    addBuffers(report, "d", side, rep, result);
    report.add("d", scenario, "loss %", side, rep, 100.0 * static_cast<double>(lost) / static_cast<double>(result.sent));
    std::uint64_t runs = 0;
    std::uint64_t longest = 0;
    tracker.lossRuns(result.sent, runs, longest);
    report.add("d", scenario, "loss runs", side, rep, static_cast<double>(runs));
    report.add("d", scenario, "longest run msgs", side, rep, static_cast<double>(longest));
    report.add("d", scenario, "reordered+dup", side, rep,
               static_cast<double>(tracker.m_reordered + tracker.m_duplicated));
    report.add("d", scenario, "sent msgs/s", side, rep, static_cast<double>(result.sent) / (result.elapsedUs / 1e6));
}

void addCountedStream(Report& report, const std::string& scenario, Side side, int rep, const StreamResult& result,
                      const SequenceTracker& tracker)
{
    const std::uint64_t lost = checkStream(scenario, result, tracker);
    addBuffers(report, "h", side, rep, result);
    report.add("h", scenario, "delivered msgs/s", side, rep, tracker.deliveredPerSecond());
    report.add("h", scenario, "loss %", side, rep,
               100.0 * static_cast<double>(lost) / static_cast<double>(result.sent));
    report.add("h", scenario, "sent msgs/s", side, rep, static_cast<double>(result.sent) / (result.elapsedUs / 1e6));
}

}  // namespace

void runStreams(Context& context)
{
    const double seconds = context.options.streamSeconds;
    std::printf("senders wait for each message's time by: %s\n", pacingName(context.options.pacing));
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        for (double rate : context.options.streamRates) {
            const std::string scenario =
                rate > 0 ? "d stream 64 B @" + std::to_string(static_cast<long>(rate / 1000)) + "k/s"
                         : "d stream 64 B unpaced";
            const StreamPlan plan{rate, seconds, 0, context.options.pacing};
            {
                SequenceTracker tracker;
                const StreamResult result = libraryStream(plan, tracker);
                addStream(context.report, scenario, Side::LIBRARY, rep, result, tracker);
            }
            {
                SequenceTracker tracker;
                const StreamResult result = udpStream(plan, tracker);
                addStream(context.report, scenario, Side::BASELINE, rep, result, tracker);
            }
        }
    }
}

void runUnpacedCount(Context& context)
{
    const long count = context.options.streamCount;
    const StreamPlan plan{0, 0, count, Pacing::SLEEP};
    const std::string scenario = "h unpaced 64 B x " + std::to_string(count);
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        {
            SequenceTracker tracker;
            const StreamResult result = libraryStream(plan, tracker);
            addCountedStream(context.report, scenario, Side::LIBRARY, rep, result, tracker);
        }
        {
            SequenceTracker tracker;
            const StreamResult result = udpStream(plan, tracker);
            addCountedStream(context.report, scenario, Side::BASELINE, rep, result, tracker);
        }
    }
}

}  // namespace bench
