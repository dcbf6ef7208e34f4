// Scenarios a and b: channels of one process. A send to a channel of the
// same process never touches a socket: it copies the message into the
// destination's queue on the sender's thread.
#include "Scenario.h"

#include "Baselines.h"
#include "LibSupport.h"
#include "Stats.h"
#include "Timing.h"

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"

#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace bench {

namespace {

const int MESSAGE_SIZE = 64;
// No progress for this long counts as a stall.
const std::int64_t STALL_NS = 1000000000;
// No progress for this long ends the run as a failure.
const std::int64_t GIVE_UP_NS = 30000000000LL;
const int RECEIVE_TIMEOUT_MS = 5000;

struct ThroughputResult {
    double perSecond = 0;
    double longestGapMs = 0;
    int stalls = 0;
};

// Runs produce and consume on two threads, started together. consume(count)
// bumps count after each message and answers false on a bad one; abort()
// must make a blocked consume return. The calling thread watches the
// count for stalls.
ThroughputResult runPair(long total, const std::function<bool()>& produce,
                         const std::function<bool(std::atomic<long>&)>& consume, const std::function<void()>& abort,
                         const std::string& what)
{
    std::atomic<bool> go{false};
    std::atomic<long> received{0};
    std::atomic<bool> produced{true};
    std::atomic<bool> consumed{true};
    std::atomic<bool> consumerDone{false};
    std::atomic<std::int64_t> endNs{0};
    std::thread consumer([&] {
        while (!go) {
        }
        consumed = consume(received);
        endNs = nowNs();
        consumerDone = true;
    });
    std::thread producer([&] {
        while (!go) {
        }
        produced = produce();
        if (!produced) {
            abort();
        }
    });

    ThroughputResult result;
    const std::int64_t start = nowNs();
    go = true;
    long lastCount = 0;
    std::int64_t lastChange = start;
    bool inStall = false;
    bool gaveUp = false;
    while (!consumerDone) {
        usleep(10000);
        const std::int64_t now = nowNs();
        const long count = received;
        if (count != lastCount) {
            lastCount = count;
            lastChange = now;
            inStall = false;
        }
        const std::int64_t gap = now - lastChange;
        result.longestGapMs = std::max(result.longestGapMs, nsToMs(gap));
        if (gap > STALL_NS && !inStall) {
            inStall = true;
            ++result.stalls;
            std::fprintf(stderr, "%s: no message for 1 s after %ld of %ld\n", what.c_str(), count, total);
        }
        if (gap > GIVE_UP_NS && !gaveUp) {
            gaveUp = true;
            abort();
        }
    }
    producer.join();
    consumer.join();
    if (gaveUp) {
        throw ScenarioFailure(what + ": no progress for 30 s after " + std::to_string(lastCount) + " messages");
    }
    if (!produced || !consumed) {
        throw ScenarioFailure(what + ": a send failed or a message arrived damaged or out of order");
    }
    result.perSecond = static_cast<double>(total) / (static_cast<double>(endNs - start) / 1e9);
    return result;
}

std::string sequencedPayload(std::uint64_t sequence)
{
    std::string payload(MESSAGE_SIZE, '\0');
    writeSequenced(&payload[0], payload.size(), sequence);
    return payload;
}

bool isExpected(const std::string& data, long index)
{
    std::uint64_t sequence = 0;
    return readSequenced(data.data(), data.size(), sequence) && data.size() == MESSAGE_SIZE &&
           sequence == static_cast<std::uint64_t>(index);
}

ThroughputResult libraryThroughput(CommsChannel& sender, CommsChannel& receiver, long total)
{
    const std::string destination = receiver.channelName();
    return runPair(
        total,
        [&] {
            for (long i = 0; i < total; ++i) {
                if (sender.sendMsg(destination, sequencedPayload(static_cast<std::uint64_t>(i))) != 1) {
                    return false;
                }
            }
            return true;
        },
        [&](std::atomic<long>& count) {
            std::string data;
            for (long i = 0; i < total; ++i) {
                if (receiver.receiveMsg(data) != 1 || !isExpected(data, i)) {
                    return false;
                }
                ++count;
            }
            return true;
        },
        [&] { receiver.shutdown(); }, "a library");
}

ThroughputResult queueThroughput(long total)
{
    StringQueue queue;
    std::atomic<bool> aborted{false};
    return runPair(
        total,
        [&] {
            for (long i = 0; i < total; ++i) {
                queue.push(sequencedPayload(static_cast<std::uint64_t>(i)));
            }
            return true;
        },
        [&](std::atomic<long>& count) {
            std::string data;
            for (long i = 0; i < total; ++i) {
                while (!queue.pop(data, 100)) {
                    if (aborted) {
                        return false;
                    }
                }
                if (!isExpected(data, i)) {
                    return false;
                }
                ++count;
            }
            return true;
        },
        [&] { aborted = true; }, "a baseline");
}

void addThroughput(Report& report, Side side, int rep, const ThroughputResult& result)
{
    const std::string scenario = "a same process 64 B";
    report.add("a", scenario, "msgs/s", side, rep, result.perSecond);
    report.add("a", scenario, "longest gap ms", side, rep, result.longestGapMs);
    report.add("a", scenario, "stalls >1 s", side, rep, result.stalls);
}

// Takes every queued message out.
void drain(CommsChannel& channel)
{
    CommsChannelDataContainerMessage message;
    while (!channel.isQEmpty() && receiveWithin(channel, message, 0, RECEIVE_TIMEOUT_MS)) {
    }
}

// Median cost (ns) of one send into a queue held at depth messages: each
// timed send is followed by an untimed receive of the queue's front.
double librarySendCost(CommsChannel& sender, CommsChannel& receiver, int depth, int samples)
{
    const std::string destination = receiver.channelName();
    const std::string payload = sequencedPayload(0);
    drain(receiver);
    for (int i = 0; i < depth; ++i) {
        if (sender.sendMsg(destination, payload) != 1) {
            throw ScenarioFailure("b: filling the queue failed");
        }
    }
    std::vector<double> costs;
    CommsChannelDataContainerMessage taken;
    for (int i = 0; i < samples; ++i) {
        const std::int64_t start = nowNs();
        const int sent = sender.sendMsg(destination, payload);
        costs.push_back(static_cast<double>(nowNs() - start));
        if (sent != 1 || !receiveWithin(receiver, taken, 0, RECEIVE_TIMEOUT_MS)) {
            throw ScenarioFailure("b: a send or the receive after it failed at depth " + std::to_string(depth));
        }
    }
    drain(receiver);
    return median(costs);
}

double queueSendCost(int depth, int samples)
{
    StringQueue queue;
    const std::string payload = sequencedPayload(0);
    for (int i = 0; i < depth; ++i) {
        queue.push(payload);
    }
    std::vector<double> costs;
    std::string taken;
    for (int i = 0; i < samples; ++i) {
        const std::int64_t start = nowNs();
        queue.push(payload);
        costs.push_back(static_cast<double>(nowNs() - start));
        queue.pop(taken, RECEIVE_TIMEOUT_MS);
    }
    return median(costs);
}

// The first resolution of a process waits for the resolver's first update;
// one send and receive here keep that wait out of the figures.
void warmUp(CommsChannel& sender, CommsChannel& receiver)
{
    CommsChannelDataContainerMessage message;
    if (sender.sendMsg(receiver.channelName(), std::string("warm-up")) != 1 ||
        !receiveWithin(receiver, message, 0, RECEIVE_TIMEOUT_MS)) {
        throw ScenarioFailure("warm-up message between two channels of this process not delivered");
    }
}

}  // namespace

void runSameProcessThroughput(Context& context)
{
    // Anonymous channels cannot send, so the sender has a name too.
    CommsChannel receiver(uniqueName("a-rx"));
    CommsChannel sender(uniqueName("a-tx"));
    warmUp(sender, receiver);
    const long total = context.options.throughputCount;
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        addThroughput(context.report, Side::LIBRARY, rep, libraryThroughput(sender, receiver, total));
        addThroughput(context.report, Side::BASELINE, rep, queueThroughput(total));
    }
}

void runSendIntoFullQueue(Context& context)
{
    CommsChannel receiver(uniqueName("b-rx"));
    CommsChannel sender(uniqueName("b-tx"));
    warmUp(sender, receiver);
    const int depths[] = {0, 1000, 10000};
    const int samples = context.options.sendSamples;
    for (int rep = 1; rep <= context.options.reps; ++rep) {
        double libraryEmpty = 0;
        double queueEmpty = 0;
        for (int depth : depths) {
            const double library = librarySendCost(sender, receiver, depth, samples);
            const double queue = queueSendCost(depth, samples);
            if (depth == 0) {
                libraryEmpty = library;
                queueEmpty = queue;
            }
            const std::string scenario = "b send, " + std::to_string(depth) + " queued";
            context.report.add("b", scenario, "ns/send", Side::LIBRARY, rep, library);
            context.report.add("b", scenario, "ns/send", Side::BASELINE, rep, queue);
            if (depth != 0) {
                context.report.add("b", scenario, "ratio to 0 queued", Side::LIBRARY, rep, library / libraryEmpty);
                context.report.add("b", scenario, "ratio to 0 queued", Side::BASELINE, rep, queue / queueEmpty);
            }
        }
    }
}

}  // namespace bench
