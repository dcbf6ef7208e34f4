// Delivery from this process to a channel of another process, through the
// real resolver: every message arrives exactly once and byte for byte intact,
// whatever its size (inline, through a spool file, one datagram or several),
// with every send overload, by request id and in priority order.
#include "ChildProcess.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "DataSpool.h"
#include "WhiteBoxAccess.h"
#include "ResolverProcess.h"
#include "SystemPeer.h"
#include "TestUtil.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using systest::LINE_TIMEOUT_MS;

// Watches the spool directory and tells which files this process created:
// the spool file of a large message is made by the sender inside sendMsg.
class SpoolWatch {
public:
    SpoolWatch() : m_fd(-1), m_watch(-1)
    {
        // The directory is made on first use; make sure it exists.
        const std::string name = spool::store("x", 1);
        if (!name.empty()) {
            spool::discard(name);
        }
        m_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (m_fd >= 0) {
            m_watch = inotify_add_watch(m_fd, spool::directory().c_str(), IN_CREATE | IN_MOVED_TO);
        }
    }
    ~SpoolWatch()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    bool ok() const { return m_watch >= 0; }

    // Names of spool files created by this process since the last call.
    std::set<std::string> createdByThisProcess()
    {
        char prefix[32];
        std::snprintf(prefix, sizeof prefix, "cc-%08x-", static_cast<unsigned int>(getpid()));
        std::set<std::string> names;
        alignas(inotify_event) char buffer[8192];
        for (;;) {
            const ssize_t n = read(m_fd, buffer, sizeof buffer);
            if (n <= 0) {
                break;
            }
            for (ssize_t offset = 0; offset < n;) {
                const inotify_event* event = reinterpret_cast<const inotify_event*>(buffer + offset);
                if (event->len > 0 && std::strncmp(event->name, prefix, std::strlen(prefix)) == 0) {
                    names.insert(event->name);
                }
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        return names;
    }

private:
    int m_fd;
    int m_watch;
};

class CrossProcessDeliveryTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(resolver.started()) << "commschannel-resolver did not start"; }

    // Starts a peer owning the named channels and waits until it is ready.
    std::unique_ptr<cctest::ChildProcess> startPeer(const std::vector<std::string>& names)
    {
        std::unique_ptr<cctest::ChildProcess> peer(new cctest::ChildProcess("peer", names));
        std::string port;
        EXPECT_TRUE(peer->waitForPrefix("READY ", &port, LINE_TIMEOUT_MS)) << "peer did not start";
        return peer;
    }

    // The peer's next line ("" when none came in time).
    static std::string nextLine(cctest::ChildProcess& peer)
    {
        std::string line;
        EXPECT_TRUE(peer.readLine(line, LINE_TIMEOUT_MS)) << "no line from the peer";
        return line;
    }

    // Asks the peer to receive n messages on name; their describe() lines.
    static std::vector<std::string> peerReceives(cctest::ChildProcess& peer, const std::string& name, int n)
    {
        peer.writeLine("RECV " + name + " " + std::to_string(n));
        std::vector<std::string> lines;
        for (int i = 0; i < n; ++i) {
            lines.push_back(nextLine(peer));
        }
        return lines;
    }

    // The message as the destination sees it: source set by the sending
    // channel, priority from the destination's table for its type.
    static std::string expectedAtDestination(const CommsChannelDataContainerMessage& sent,
                                             const std::string& source, VireoThreadPriority priority)
    {
        CommsChannelDataContainerMessage expected(sent);
        expected.setSourceChannel(source);
        expected.setPriority(priority);
        return systest::describe(expected);
    }

    static void quit(cctest::ChildProcess& peer)
    {
        peer.writeLine("QUIT");
        EXPECT_TRUE(peer.waitForLine("BYE", LINE_TIMEOUT_MS));
        EXPECT_EQ(0, peer.wait(LINE_TIMEOUT_MS));
    }

    cctest::ResolverProcess resolver;
};

// --- Sizes -------------------------------------------------------------

struct SizeCase {
    const char* name;
    int dataLength;
    int encodingLength;  // 0: no padding
    bool travelsInSpoolFile;
};

class MessageSizeTest : public CrossProcessDeliveryTest, public ::testing::WithParamInterface<SizeCase> {};

TEST_P(MessageSizeTest, ArrivesOnceAndByteForByteIntact)
{
    const SizeCase& size = GetParam();
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    SpoolWatch spoolWatch;
    ASSERT_TRUE(spoolWatch.ok());

    CommsChannelDataContainerMessage message;
    message.setChannel("sink");
    message.setSourceChannel("source");
    const std::string data = systest::patternData(static_cast<std::size_t>(size.dataLength), 17);
    message.setData(data.data(), static_cast<int>(data.size()));
    if (size.encodingLength != 0) {
        ASSERT_TRUE(systest::padEncodingTo(message, size.encodingLength));
        ASSERT_EQ(size.encodingLength, systest::encodedLength(message));
    }
    const std::string expected = expectedAtDestination(message, "source", VIREO_PRIORITY_NORMAL);

    ASSERT_EQ(1, source.sendMsg(message));
    EXPECT_EQ(size.travelsInSpoolFile ? 1U : 0U, spoolWatch.createdByThisProcess().size());
    EXPECT_EQ(std::vector<std::string>{expected}, peerReceives(*peer, "sink", 1));

    // Nothing else arrived before the next message: exactly once.
    ASSERT_EQ(1, source.sendMsg("sink", std::string("end")));
    const std::vector<std::string> next = peerReceives(*peer, "sink", 1);
    EXPECT_NE(std::string::npos, next[0].find(" data=3/" + systest::checksum("end"))) << next[0];

    EXPECT_TRUE(systest::spoolFilesOf(getpid()).empty());
    EXPECT_TRUE(systest::spoolFilesOf(peer->pid()).empty());
    quit(*peer);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, MessageSizeTest,
    ::testing::Values(SizeCase{"OneByteOfData", 1, 0, false},
                      SizeCase{"DataOfExactlyTheFileThresholdTravelsInline", 59750, 0, false},
                      SizeCase{"DataOneByteAboveTheThresholdTravelsInSpoolFile", 59751, 0, true},
                      SizeCase{"EncodingOfExactlyOneFullDatagram", 59000, 60000, false},
                      SizeCase{"EncodingSplitIntoSixtyThousandSixtyThousandAndOne", 59750, 120001, false}),
    [](const ::testing::TestParamInfo<SizeCase>& info) { return std::string(info.param.name); });

TEST_F(CrossProcessDeliveryTest, SixtyFourMebibytesArriveIntactAndLeaveNoSpoolFile)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    SpoolWatch spoolWatch;
    ASSERT_TRUE(spoolWatch.ok());
    std::string data = systest::patternData(64U << 20, 64);
    const std::string expectedData = "data=" + std::to_string(data.size()) + "/" + systest::checksum(data);

    ASSERT_EQ(1, source.sendMsg("sink", &data[0], static_cast<int>(data.size())));
    EXPECT_EQ(1U, spoolWatch.createdByThisProcess().size());
    const std::vector<std::string> lines = peerReceives(*peer, "sink", 1);
    ASSERT_EQ(1U, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find(" " + expectedData)) << lines[0].substr(0, 200);
    EXPECT_NE(std::string::npos, lines[0].find("MSG src=source dst=sink ")) << lines[0].substr(0, 200);

    // The receiver removed the file as it read it; nobody left one behind.
    EXPECT_TRUE(systest::spoolFilesOf(getpid()).empty());
    EXPECT_TRUE(systest::spoolFilesOf(peer->pid()).empty());
    const pid_t peerPid = peer->pid();
    quit(*peer);
    EXPECT_TRUE(systest::spoolFilesOf(peerPid).empty());
}

TEST_F(CrossProcessDeliveryTest, ManyMessagesArriveExactlyOnceInSendingOrder)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    // Windows keep the peer's socket buffer from overflowing: datagrams
    // have no flow control.
    const int windows = 4;
    const int perWindow = 25;
    for (int w = 0; w < windows; ++w) {
        std::vector<std::string> expected;
        for (int i = 0; i < perWindow; ++i) {
            const std::string data = systest::patternData(static_cast<std::size_t>(1 + (w * perWindow + i) * 37),
                                                          static_cast<unsigned int>(w * perWindow + i));
            CommsChannelDataContainerMessage sent;
            sent.setChannel("sink");
            sent.setData(data.data(), static_cast<int>(data.size()));
            expected.push_back(expectedAtDestination(sent, "source", VIREO_PRIORITY_NORMAL));
            ASSERT_EQ(1, source.sendMsg("sink", data));
        }
        EXPECT_EQ(expected, peerReceives(*peer, "sink", perWindow)) << "window " << w;
    }
    // And nothing more is pending.
    peer->writeLine("WAITQ sink 1");
    ASSERT_EQ(1, source.sendMsg("sink", std::string("last")));
    EXPECT_TRUE(peer->waitForLine("QUEUED 1", LINE_TIMEOUT_MS));
    const std::vector<std::string> last = peerReceives(*peer, "sink", 1);
    EXPECT_NE(std::string::npos, last[0].find(" data=4/" + systest::checksum("last"))) << last[0];
    quit(*peer);
}

// --- Send overloads ----------------------------------------------------

TEST_F(CrossProcessDeliveryTest, StringOverloadSetsOnlyDestinationDataAndSource)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    const std::string data = "hello, other process";

    ASSERT_EQ(1, source.sendMsg("sink", data));

    CommsChannelDataContainerMessage expected;
    expected.setChannel("sink");
    expected.setData(data.data(), static_cast<int>(data.size()));
    EXPECT_EQ(std::vector<std::string>{expectedAtDestination(expected, "source", VIREO_PRIORITY_NORMAL)},
              peerReceives(*peer, "sink", 1));
    quit(*peer);
}

TEST_F(CrossProcessDeliveryTest, BufferOverloadCarriesBinaryBytes)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    std::string data = systest::patternData(4096, 3);
    data[0] = '\0';
    data[100] = '\0';

    ASSERT_EQ(1, source.sendMsg("sink", &data[0], static_cast<int>(data.size())));

    CommsChannelDataContainerMessage expected;
    expected.setChannel("sink");
    expected.setData(data.data(), static_cast<int>(data.size()));
    EXPECT_EQ(std::vector<std::string>{expectedAtDestination(expected, "source", VIREO_PRIORITY_NORMAL)},
              peerReceives(*peer, "sink", 1));
    quit(*peer);
}

TEST_F(CrossProcessDeliveryTest, MessageOverloadKeepsEveryFieldButSourceAndPriority)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    CommsChannelDataContainerMessage message;
    message.setChannel("sink");
    message.setSourceChannel("impostor");
    message.setCallbackChannel("source-callback");
    message.setProtocol("proto-x");
    message.setInterface("iface-y");
    message.setRemoteContext("context with spaces and \x01 bytes");
    message.setRequestId(77);
    message.setMsgType(2);
    message.setPriority(VIREO_PRIORITY_LOW);
    const std::string data = systest::patternData(999, 5);
    message.setData(data.data(), static_cast<int>(data.size()));

    ASSERT_EQ(1, source.sendMsg(message));

    EXPECT_EQ("source", message.sourceChannel());
    // Type 2 queues at high priority in the destination's table.
    EXPECT_EQ(std::vector<std::string>{expectedAtDestination(message, "source", VIREO_PRIORITY_HIGH)},
              peerReceives(*peer, "sink", 1));
    quit(*peer);
}

TEST_F(CrossProcessDeliveryTest, DataOnlyReceiveOperationsGetTheSentBytes)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    const std::string first = systest::patternData(1000, 8);
    std::string second = systest::patternData(70000, 9);

    ASSERT_EQ(1, source.sendMsg("sink", first));
    peer->writeLine("RECVSTR sink 1");
    EXPECT_EQ(systest::describeData(first), nextLine(*peer));
    ASSERT_EQ(1, source.sendMsg("sink", &second[0], static_cast<int>(second.size())));
    peer->writeLine("RECVBUF sink 1");
    EXPECT_EQ(systest::describeData(second), nextLine(*peer));
    quit(*peer);
}

// --- Request and reply by id ------------------------------------------

class RequestReplyTest : public CrossProcessDeliveryTest {
protected:
    // Sends requests 1..n from client to the peer's "server", which keeps
    // them until told to answer.
    void sendRequests(CommsChannel& client, cctest::ChildProcess& peer, int n)
    {
        for (int id = 1; id <= n; ++id) {
            CommsChannelDataContainerMessage request;
            request.setChannel("server");
            request.setCallbackChannel(client.channelName());
            request.setRequestId(id);
            const std::string data = requestData(id);
            request.setData(data.data(), static_cast<int>(data.size()));
            ASSERT_EQ(1, client.sendMsg(request));
        }
        peer.writeLine("COLLECT server " + std::to_string(n));
        ASSERT_TRUE(peer.waitForLine("COLLECTED", LINE_TIMEOUT_MS));
    }

    static std::string requestData(long id) { return "request " + std::to_string(id) + " " + std::string(id * 10, 'q'); }
};

TEST_F(RequestReplyTest, QueuedRepliesAreTakenByIdWhateverTheirArrivalOrder)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"server"});
    CommsChannel client("client");
    sendRequests(client, *peer, 4);

    peer->writeLine("REPLY server 3 1 4 2");
    ASSERT_TRUE(peer->waitForLine("REPLIED", LINE_TIMEOUT_MS));
    ASSERT_TRUE(systest::waitQueued(client, 4, LINE_TIMEOUT_MS));

    for (long id = 1; id <= 4; ++id) {
        CommsChannelDataContainerMessage reply;
        ASSERT_EQ(1, client.receiveMsg_ByID_Timed(reply, id, 5000)) << "id " << id;
        EXPECT_EQ(id, reply.requestId());
        EXPECT_EQ(requestData(id), reply.getData());
        EXPECT_EQ("server", reply.sourceChannel());
    }
    EXPECT_EQ(0U, CommsChannelInspector::queueLengthLocked(client));
    quit(*peer);
}

TEST_F(RequestReplyTest, WaitersOnIdsEachGetTheirOwnReplyFromAnotherProcess)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"server"});
    CommsChannel client("client");
    sendRequests(client, *peer, 4);

    std::vector<std::string> replies(5);
    std::vector<long> ids(5, -1);
    std::atomic<int> done{0};
    std::vector<std::thread> waiters;
    for (long id = 1; id <= 4; ++id) {
        waiters.emplace_back([&, id] {
            CommsChannelDataContainerMessage reply;
            try {
                if (client.receiveMsg_ByID_Timed(reply, id, LINE_TIMEOUT_MS) == 1) {
                    replies[static_cast<std::size_t>(id)] = reply.getData();
                    ids[static_cast<std::size_t>(id)] = reply.requestId();
                }
            } catch (...) {
            }
            ++done;
        });
    }
    peer->writeLine("REPLY server 4 2 3 1");
    ASSERT_TRUE(peer->waitForLine("REPLIED", LINE_TIMEOUT_MS));
    EXPECT_TRUE(cctest::waitUntil([&] { return done == 4; }, LINE_TIMEOUT_MS + 5000));
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    for (long id = 1; id <= 4; ++id) {
        EXPECT_EQ(id, ids[static_cast<std::size_t>(id)]);
        EXPECT_EQ(requestData(id), replies[static_cast<std::size_t>(id)]);
    }
    EXPECT_EQ(0U, CommsChannelInspector::queueLengthLocked(client));
    quit(*peer);
}

// --- Priority --------------------------------------------------------

TEST_F(CrossProcessDeliveryTest, QueuedMessagesAreReceivedInPriorityOrderOfTheirTypes)
{
    std::unique_ptr<cctest::ChildProcess> peer = startPeer({"sink"});
    CommsChannel source("source");
    const int types[] = {1, 0, 2, 1, 0, 2, 1, 0, 2};
    // Type 2 is high, 0 normal and 1 low priority at the destination;
    // within one priority the sending order holds.
    std::vector<std::string> high;
    std::vector<std::string> normal;
    std::vector<std::string> low;
    int index = 0;
    for (int type : types) {
        CommsChannelDataContainerMessage message;
        message.setChannel("sink");
        message.setMsgType(type);
        const std::string data = "type " + std::to_string(type) + " #" + std::to_string(index++);
        message.setData(data.data(), static_cast<int>(data.size()));
        ASSERT_EQ(1, source.sendMsg(message));
        const VireoThreadPriority priority =
            type == 2 ? VIREO_PRIORITY_HIGH : (type == 0 ? VIREO_PRIORITY_NORMAL : VIREO_PRIORITY_LOW);
        (type == 2 ? high : (type == 0 ? normal : low)).push_back(expectedAtDestination(message, "source", priority));
    }
    std::vector<std::string> expected(high);
    expected.insert(expected.end(), normal.begin(), normal.end());
    expected.insert(expected.end(), low.begin(), low.end());

    // The peer's receiving thread starts only once all nine are queued.
    peer->writeLine("WAITQ sink 9");
    ASSERT_TRUE(peer->waitForLine("QUEUED 9", LINE_TIMEOUT_MS));
    EXPECT_EQ(expected, peerReceives(*peer, "sink", 9));
    quit(*peer);
}

}  // namespace
