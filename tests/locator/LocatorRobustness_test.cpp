// The locator when its link to the resolver fails or is slow to start: a
// name too long for one datagram, and many first sends that wait together
// for the resolver's first update. Each scenario runs in a child process
// that reports what it saw (see OutsideView.h), so that a send that waits
// for good costs the child, never the test program.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelLocatorUpdateMessage.h"
#include "CommsException.h"
#include "FakeResolver.h"
#include "OutsideView.h"
#include "ResolverProcess.h"
#include "StderrRecorder.h"
#include "TestUtil.h"

#include <unistd.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::size_t countLines(const std::string& text)
{
    std::size_t lines = 0;
    for (char c : text) {
        if (c == '\n') {
            ++lines;
        }
    }
    return lines;
}

std::size_t countOccurrences(const std::string& text, const std::string& needle)
{
    std::size_t count = 0;
    for (std::string::size_type at = text.find(needle); at != std::string::npos;
         at = text.find(needle, at + needle.size())) {
        ++count;
    }
    return count;
}

// Sends data from one channel to a name on a thread with a deadline and
// checks that the send answers 1 and that the destination receives it.
void expectDelivered(cctest::ChildChecks& checks, CommsChannel& from, const std::string& toName, CommsChannel& to,
                     const std::string& label)
{
    const std::string data = "to " + label;
    cctest::TimedCall send([&from, &toName, data] { return from.sendMsg(toName, data); });
    if (!checks.expect(send.finishedWithin(5000), "the send to " + label + " did not return within 5 s")) {
        return;
    }
    checks.expect(!send.threw() && send.result() == 1,
                  "the send to " + label + " answered " + std::to_string(send.result()) +
                      (send.threw() ? " and threw " + send.what() : ""));
    std::shared_ptr<std::string> received = std::make_shared<std::string>();
    cctest::TimedCall receive([&to, received] {
        CommsChannelDataContainerMessage message;
        const int result = to.receiveMsg_ByID_Timed(message, 0, 2000);
        *received = message.getData();
        return result;
    });
    if (!checks.expect(receive.finishedWithin(5000), "the receive at " + label + " did not return")) {
        return;
    }
    checks.expect(!receive.threw() && receive.result() == 1 && *received == data,
                  "the receive at " + label + " answered " + std::to_string(receive.result()) + " with '" +
                      *received + "'" + (receive.threw() ? ", threw " + receive.what() : ""));
}

}  // namespace

// --- A name too long for the resolver --------------------------------------

// Holds a channel named args[0] until told to end.
CC_CHILD_MAIN(holdOneName)
{
    CommsChannel held(args.at(0));
    cctest::childSay("READY");
    std::string line;
    cctest::childHear(line);
    return 0;
}

CC_CHILD_MAIN(nameTooLongForTheResolver)
{
    (void)args;
    cctest::ChildChecks checks;
    cctest::StderrRecorder errors;
    CommsChannel alpha("lr-alpha");
    CommsChannel beta("lr-beta");
    // The resolver's first update has been applied once a send resolves.
    expectDelivered(checks, alpha, "lr-beta", beta, "lr-beta before the long name");
    const std::size_t linesBefore = countLines(errors.text());

    const std::string longName(66000, 'L');
    CommsChannel* longNamed = new CommsChannel(longName);
    checks.expect(cctest::waitUntil([&errors] { return errors.text().find("Message too long") != std::string::npos; },
                                    5000),
                  "no 'Message too long' report for the failed registration");
    // Another process registers a name: the resolver tells every locator,
    // so this process's locator thread has something to wake up for.
    {
        cctest::ChildProcess outsider("holdOneName", {"lr-outsider"});
        checks.expect(outsider.waitForLine("READY", 10000), "the other process did not register its name");
        usleep(300 * 1000);
        outsider.writeLine("END");
        checks.expect(outsider.wait(10000) == 0, "the other process did not end cleanly");
    }

    // Every name the process holds is still reached from its other channels.
    expectDelivered(checks, alpha, longName, *longNamed, "the long name");
    expectDelivered(checks, alpha, "lr-beta", beta, "lr-beta");
    expectDelivered(checks, beta, "lr-alpha", alpha, "lr-alpha");
    expectDelivered(checks, *longNamed, "lr-alpha", alpha, "lr-alpha from the long name");

    // Standard error does not fill up afterwards.
    const std::size_t linesAfterSends = countLines(errors.text());
    usleep(2000 * 1000);
    const std::string text = errors.text();
    errors.restore();
    const std::size_t newLines = countLines(text) - linesBefore;
    checks.note("standard error since the long name: " + std::to_string(newLines) + " line(s), starting '" +
                text.substr(0, 300) + "'");
    checks.expect(newLines < 5, "standard error got " + std::to_string(newLines) +
                                    " line(s) since the long name was made (" +
                                    std::to_string(countLines(text) - linesAfterSends) + " in the last 2 s)");
    checks.expect(countOccurrences(text, "Message too long") == 1,
                  "'Message too long' was reported " + std::to_string(countOccurrences(text, "Message too long")) +
                      " time(s)");
    return checks.finish();
}

TEST(LocatorRobustnessTest, NameTooLongForTheResolverLeavesEveryNameOfTheProcessReachableAndStderrQuiet)
{
    cctest::ResolverProcess resolver;
    ASSERT_TRUE(resolver.started());
    cctest::expectChildPasses("nameTooLongForTheResolver", {}, 60000);
}

// --- First sends waiting for the first update -------------------------------

namespace {

const int WAITING_SENDERS = 8;

}  // namespace

CC_CHILD_MAIN(firstSendsBeforeTheFirstUpdate)
{
    (void)args;
    cctest::ChildChecks checks;
    // Answers port requests, but sends the first update only when told.
    cctest::FakeResolver resolver(false, true);
    checks.expect(resolver.ok(), "the fake resolver could not take port 5000");
    cctest::UdpSocket remote;
    checks.expect(remote.ok(), "no socket for the channel of the other process");
    resolver.setPort("fs-remote", remote.port());

    CommsChannel sender("fs-sender");
    CommsChannel local("fs-local");
    const int locatorPort = resolver.waitForLocator();
    checks.expect(locatorPort != 0, "the locator did not register");

    // Half of them send to a channel of another process, half to one of
    // this process.
    std::vector<std::unique_ptr<cctest::TimedCall>> sends;
    for (int i = 0; i < WAITING_SENDERS; ++i) {
        const std::string destination = i % 2 == 0 ? "fs-remote" : "fs-local";
        sends.emplace_back(new cctest::TimedCall(
            [&sender, destination, i] { return sender.sendMsg(destination, "first send " + std::to_string(i)); }));
    }
    usleep(300 * 1000);
    int returnedEarly = 0;
    for (const std::unique_ptr<cctest::TimedCall>& send : sends) {
        returnedEarly += send->done() ? 1 : 0;
    }
    checks.note(std::to_string(returnedEarly) + " of the first sends returned before the first update was sent");

    checks.expect(resolver.sendUpdate(locatorPort, {std::make_tuple(0, std::string("fs-remote"), remote.port())}) > 0,
                  "the first update could not be sent");
    const long long updated = cctest::nowMs();
    const bool allDone = cctest::waitUntil(
        [&sends] {
            for (const std::unique_ptr<cctest::TimedCall>& send : sends) {
                if (!send->done()) {
                    return false;
                }
            }
            return true;
        },
        5000);
    int stillWaiting = 0;
    int failed = 0;
    for (const std::unique_ptr<cctest::TimedCall>& send : sends) {
        if (!send->done()) {
            ++stillWaiting;
        } else if (send->threw() || send->result() != 1) {
            ++failed;
        }
    }
    checks.expect(allDone, std::to_string(stillWaiting) + " of " + std::to_string(WAITING_SENDERS) +
                               " first sends were still waiting 5 s after the first update");
    checks.expect(failed == 0, std::to_string(failed) + " first send(s) did not answer 1");
    if (allDone) {
        checks.note("all first sends returned within " + std::to_string(cctest::nowMs() - updated) +
                    " ms of the update");
    }
    return checks.finish();
}

TEST(LocatorRobustnessTest, EveryFirstSendWaitingForTheFirstUpdateGoesOnOnceItArrives)
{
    cctest::expectChildPasses("firstSendsBeforeTheFirstUpdate", {}, 60000);
}
