// Scenario d: one-way streams of 64-byte sequenced messages from another
// process, paced at fixed rates and unpaced. The receiving application
// thread takes every message with receiveMsg; after the sender is done and
// a short drain, the sequence numbers tell what was lost, reordered or
// duplicated. The baseline is the same stream over raw UDP into a socket
// whose receive buffer is set to 65535 bytes, like a channel's.
#include "Scenario.h"

#include "Baselines.h"
#include "LibSupport.h"
#include "PeerProcess.h"
#include "RoundTrip.h"
#include "Timing.h"

#include "CommsChannel.h"

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
        m_any = true;
        m_lastNs = nowNs();
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
    std::atomic<std::int64_t> m_lastNs{0};
};

struct StreamResult {
    std::uint64_t sent = 0;
    std::uint64_t failed = 0;
    double elapsedUs = 0;
};

// Lets the peer stream, waits for its report, then for the drain.
StreamResult driveStream(PeerProcess& peer, SequenceTracker& tracker, double seconds, const std::string& what)
{
    if (!peer.send("GO")) {
        throw ScenarioFailure(what + ": cannot start the stream");
    }
    std::string done;
    if (!peer.expect("DONE", static_cast<int>(seconds * 1000) + 30000, done)) {
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

StreamResult libraryStream(double rate, double seconds, Pacing pacing, SequenceTracker& tracker)
{
    CommsChannel receiver(uniqueName("d-rx"));
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
        startPeer(peer,
                  {"lib-stream", "name=" + uniqueName("d-tx"), "target=" + receiver.channelName(),
                   "rate=" + std::to_string(static_cast<long>(rate)), "seconds=" + std::to_string(seconds),
                   "size=" + std::to_string(MESSAGE_SIZE), std::string("pacing=") + pacingName(pacing)},
                  READY_TIMEOUT_MS, nullptr);
        result = driveStream(peer, tracker, seconds, "d library stream");
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

StreamResult udpStream(double rate, double seconds, Pacing pacing, SequenceTracker& tracker)
{
    const int fd = openUdpSocket(65535);
    if (fd < 0) {
        throw ScenarioFailure("d: no UDP socket");
    }
    std::atomic<bool> stop{false};
    std::thread application([&] {
        char buffer[2048];
        while (!stop) {
            const long n = udpReceive(fd, buffer, sizeof buffer, 50, nullptr);
            if (n >= 0) {
                tracker.note(buffer, static_cast<std::size_t>(n));
            }
        }
    });
    PeerProcess peer;
    StreamResult result;
    try {
        startPeer(peer,
                  {"udp-stream", "port=" + std::to_string(udpPort(fd)),
                   "rate=" + std::to_string(static_cast<long>(rate)), "seconds=" + std::to_string(seconds),
                   "size=" + std::to_string(MESSAGE_SIZE), std::string("pacing=") + pacingName(pacing)},
                  READY_TIMEOUT_MS, nullptr);
        result = driveStream(peer, tracker, seconds, "d UDP stream");
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

void addStream(Report& report, const std::string& scenario, Side side, int rep, const StreamResult& result,
               const SequenceTracker& tracker)
{
    if (tracker.m_damaged != 0) {
        throw ScenarioFailure(scenario + ": " + std::to_string(tracker.m_damaged) + " damaged messages");
    }
    if (result.sent == 0) {
        throw ScenarioFailure(scenario + ": nothing was sent");
    }
    const std::uint64_t lost = result.sent - tracker.receivedBelow(result.sent);
    report.add("d", scenario, "loss %", side, rep, 100.0 * static_cast<double>(lost) / static_cast<double>(result.sent));
    std::uint64_t runs = 0;
    std::uint64_t longest = 0;
    tracker.lossRuns(result.sent, runs, longest);
    report.add("d", scenario, "loss runs", side, rep, static_cast<double>(runs));
    report.add("d", scenario, "longest run msgs", side, rep, static_cast<double>(longest));
    report.add("d", scenario, "reordered+dup", side, rep,
               static_cast<double>(tracker.m_reordered + tracker.m_duplicated));
    report.add("d", scenario, "sent msgs/s", side, rep, static_cast<double>(result.sent) / (result.elapsedUs / 1e6));
    if (result.failed != 0) {
        std::fprintf(stderr, "%s: %" PRIu64 " sends failed at the sender (counted as lost)\n", scenario.c_str(),
                     result.failed);
    }
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
            {
                SequenceTracker tracker;
                const StreamResult result = libraryStream(rate, seconds, context.options.pacing, tracker);
                addStream(context.report, scenario, Side::LIBRARY, rep, result, tracker);
            }
            {
                SequenceTracker tracker;
                const StreamResult result = udpStream(rate, seconds, context.options.pacing, tracker);
                addStream(context.report, scenario, Side::BASELINE, rep, result, tracker);
            }
        }
    }
}

}  // namespace bench
