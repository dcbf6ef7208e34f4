// What the end-to-end tests of commschannel monitor share: the fixture that
// starts the real resolver and the real monitor on the test's private
// loopback and reads the monitor's JSON lines, and child processes that hold
// a channel or send from one. One test thread; each test program includes
// it once.
//
// Under user-mode emulation (the MIPS run) a packet socket may not work:
// the tests then skip, saying so, when the monitor cannot open its capture.
#ifndef COMMSCHANNEL_TESTS_MONITOR_FIXTURE_H
#define COMMSCHANNEL_TESTS_MONITOR_FIXTURE_H

#include "ChildProcess.h"
#include "CliRun.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "JsonLine.h"
#include "ResolverClient.h"
#include "ResolverProcess.h"
#include "TestUtil.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>

namespace {

using cctest::CliRun;
using cctest::jsonText;
using cctest::linesOf;
using cctest::parseJsonLine;
using cctest::RUN_TIMEOUT_MS;
typedef std::map<std::string, std::string> Json;

#ifdef COMMSCHANNEL_TEST_EMULATED
const bool EMULATED = true;
#else
const bool EMULATED = false;
#endif

// A channel held by another process until its parent says anything.
CC_CHILD_MAIN(monitoredHolder)
{
    CommsChannel channel(args.at(0));
    cctest::childSay("READY " + std::to_string(channel.port()));
    std::string line;
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

// Sends from a channel of its own in another process (a process's channels
// talk to each other without datagrams): args are the sender's name, the
// destination, the data, how many times the data is repeated, the type, the
// request id and the callback channel. Says "SENT <port>" and keeps the
// channel until its parent says anything.
CC_CHILD_MAIN(messageSender)
{
    CommsChannel sender(args.at(0));
    std::string data;
    for (int copies = std::stoi(args.at(3)); copies > 0; --copies) {
        data += args.at(2);
    }
    CommsChannelDataContainerMessage message;
    message.setChannel(args.at(1));
    message.setData(data.data(), static_cast<int>(data.size()));
    message.setMsgType(std::stoi(args.at(4)));
    message.setRequestId(std::stol(args.at(5)));
    message.setCallbackChannel(args.at(6));
    if (sender.sendMsg(message) != 1) {
        return cctest::CHILD_FAILED;
    }
    cctest::childSay("SENT " + std::to_string(sender.port()));
    std::string line;
    cctest::childHear(line);
    return cctest::CHILD_OK;
}

// A sender process as above; its port goes to *port.
inline std::unique_ptr<cctest::ChildProcess> sendFromChild(const std::string& target, const std::string& data,
                                                    std::string* port, int copies = 1, int type = 0, long id = 0,
                                                    const std::string& callback = std::string())
{
    std::unique_ptr<cctest::ChildProcess> child(new cctest::ChildProcess(
        "messageSender", {"sender", target, data, std::to_string(copies), std::to_string(type), std::to_string(id),
                          callback}));
    std::string ignored;
    EXPECT_TRUE(child->waitForPrefix("SENT ", port != nullptr ? port : &ignored, RUN_TIMEOUT_MS));
    return child;
}

inline std::string quoted(const std::string& text) { return "\"" + text + "\""; }

class CliMonitorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        resolver.reset(new cctest::ResolverProcess());
        ASSERT_TRUE(resolver->started());
    }

    // Starts the monitor and waits until it captures. False (with *skip
    // set under emulation) when it could not start capturing.
    bool startMonitor(const std::vector<std::string>& arguments, bool* skip)
    {
        std::vector<std::string> full{"monitor"};
        full.insert(full.end(), arguments.begin(), arguments.end());
        monitor.reset(new CliRun(full));
        const bool listening = cctest::waitUntil(
            [this] { return monitor->err().find("listening on lo\n") != std::string::npos; }, RUN_TIMEOUT_MS);
        *skip = !listening && EMULATED && monitor->err().find("cannot capture on lo") != std::string::npos;
        return listening;
    }

    // The JSON lines printed so far.
    std::vector<Json> events() const
    {
        std::vector<Json> parsed;
        for (const std::string& line : linesOf(monitor->out())) {
            parsed.push_back(parseJsonLine(line));
        }
        return parsed;
    }

    // Waits until some printed JSON line satisfies match; returns it.
    Json waitForEvent(const std::function<bool(const Json&)>& match)
    {
        Json found;
        cctest::waitUntil(
            [&] {
                for (const Json& event : events()) {
                    if (match(event)) {
                        found = event;
                        return true;
                    }
                }
                return false;
            },
            RUN_TIMEOUT_MS);
        return found;
    }

    Json waitForKind(const std::string& kind, const std::string& key = std::string(),
                     const std::string& value = std::string())
    {
        return waitForEvent([&](const Json& event) {
            return event.count("kind") && event.at("kind") == quoted(kind) &&
                   (key.empty() || (event.count(key) && event.at(key) == value));
        });
    }

    bool registered(const std::string& name) { return resolver::waitForName(5000, name, RUN_TIMEOUT_MS); }

    std::unique_ptr<cctest::ResolverProcess> resolver;
    std::unique_ptr<CliRun> monitor;
};

#define START_MONITOR(...)                                                               \
    do {                                                                                 \
        bool skip = false;                                                               \
        if (!startMonitor(__VA_ARGS__, &skip)) {                                         \
            if (skip) {                                                                  \
                GTEST_SKIP() << "no packet capture under emulation: " << monitor->err(); \
            }                                                                            \
            FAIL() << "the monitor did not start capturing: " << monitor->err();         \
        }                                                                                \
    } while (0)

// The keys of an event, in one string, for comparing key sets.
inline std::string keysOf(const Json& event)
{
    std::string keys;
    for (const std::pair<const std::string, std::string>& field : event) {
        keys += (keys.empty() ? "" : ",") + field.first;
    }
    return keys;
}

}  // namespace

#endif
