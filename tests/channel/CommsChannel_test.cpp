// Construction, socket set-up, shutdown and destruction of a channel.
#include "CommsChannel.h"
#include "ChannelTestHelpers.h"
#include "CommsChannelDataContainerMessage.h"
#include "WhiteBoxAccess.h"
#include "TestUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>

#include <gtest/gtest.h>

// The program's own allocation functions, so that a test can see when the
// channel deletes a given object: operator delete notes every pointer that a
// test has asked about. Everything else behaves as the default allocator.
namespace {

const int TRACKED_SLOTS = 8;
std::atomic<void*> trackedPointers[TRACKED_SLOTS];

void noteDeleted(void* pointer)
{
    if (pointer == nullptr) {
        return;
    }
    for (std::atomic<void*>& slot : trackedPointers) {
        void* expected = pointer;
        // First deletion only: the address may be handed out again later.
        if (slot.load(std::memory_order_relaxed) == pointer &&
            slot.compare_exchange_strong(expected, nullptr)) {
            return;
        }
    }
}

void* allocate(std::size_t size) { return std::malloc(size != 0 ? size : 1); }

}  // namespace

// These replace the global allocation functions, so free() inside them pairs
// with the malloc() in allocate(); GCC cannot see that through the
// sanitizer's inlining and warns of a mismatch.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size)
{
    void* pointer = allocate(size);
    if (pointer == nullptr) {
        throw std::bad_alloc();
    }
    return pointer;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* pointer) noexcept
{
    noteDeleted(pointer);
    std::free(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept
{
    noteDeleted(pointer);
    std::free(pointer);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept
{
    noteDeleted(pointer);
    std::free(pointer);
}
#pragma GCC diagnostic pop

namespace {

using channeltest::AsyncCall;
using channeltest::RecordingInterceptor;
using channeltest::message;

// Watches up to TRACKED_SLOTS objects for their deletion.
class DeletionTracker {
public:
    explicit DeletionTracker(const std::vector<CommsChannelDataContainerMessage*>& objects) : m_count(objects.size())
    {
        for (std::size_t i = 0; i < m_count && i < TRACKED_SLOTS; ++i) {
            trackedPointers[i] = objects[i];
        }
    }
    ~DeletionTracker()
    {
        for (std::atomic<void*>& slot : trackedPointers) {
            slot = nullptr;
        }
    }
    std::size_t deleted() const
    {
        std::size_t count = 0;
        for (std::size_t i = 0; i < m_count; ++i) {
            if (trackedPointers[i].load() == nullptr) {
                ++count;
            }
        }
        return count;
    }

private:
    std::size_t m_count;
};

bool descriptorIsClosed(int fd) { return fcntl(fd, F_GETFD) == -1 && errno == EBADF; }

int socketOption(int fd, int option)
{
    int value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(fd, SOL_SOCKET, option, &value, &length) != 0) {
        return -1;
    }
    return value;
}

class CommsChannelTest : public testing::Test {
protected:
    channeltest::Watchdog watchdog;
};

TEST_F(CommsChannelTest, PortIsTheOneTheKernelReportsForItsSocket)
{
    CommsChannel sut("");
    sockaddr_in address;
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(sut.socketHandle(), reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_EQ(ntohs(address.sin_port), sut.port());
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
}

TEST_F(CommsChannelTest, DatagramSentToItsPortArrivesOnItsSocket)
{
    CommsChannel sut("");
    CommsChannelDataContainerMessage message;
    message.setData("abc", 3);
    int length = 0;
    const char* encoding = message.encode(&length);
    ASSERT_NE(nullptr, encoding);
    cctest::UdpSocket peer;
    ASSERT_EQ(length, peer.sendTo(sut.port(), encoding, static_cast<std::size_t>(length)));
    std::string data;
    ASSERT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("abc", data);
}

TEST_F(CommsChannelTest, SocketIsADatagramSocket)
{
    CommsChannel sut("");
    EXPECT_EQ(SOCK_DGRAM, socketOption(sut.socketHandle(), SO_TYPE));
}

TEST_F(CommsChannelTest, TwoChannelsCreatedOneAfterTheOtherHaveDifferentPorts)
{
    CommsChannel first("");
    CommsChannel second("");
    EXPECT_GT(first.port(), 0);
    EXPECT_GT(second.port(), 0);
    EXPECT_NE(first.port(), second.port());
    EXPECT_NE(first.socketHandle(), second.socketHandle());
}

TEST_F(CommsChannelTest, BothSocketBuffersAreRequestedAt65535Bytes)
{
    CommsChannel first("");
    CommsChannel second("");
    // Linux doubles the value asked for and reports the doubled size; its
    // default would be larger (net.core.[rw]mem_default).
    for (CommsChannel* sut : {&first, &second}) {
        EXPECT_EQ(2 * 65535, socketOption(sut->socketHandle(), SO_SNDBUF));
        EXPECT_EQ(2 * 65535, socketOption(sut->socketHandle(), SO_RCVBUF));
    }
}

TEST_F(CommsChannelTest, NewChannelHasAnEmptyQueueNoWaiterAndIsNotShutDown)
{
    CommsChannel sut("");
    EXPECT_TRUE(sut.isQEmpty());
    EXPECT_EQ(0u, CommsChannelInspector::queueLength(sut));
    EXPECT_EQ(0, CommsChannelInspector::queueSemaphoreCount(sut));
    EXPECT_FALSE(CommsChannelInspector::hasRequestIdEntry(sut, 0));
    // Not shut down, and no interceptor: even a message a recording
    // interceptor would drop is queued and received.
    CommsChannelDataContainerMessage queued = message("drop me");
    sut.addToMsgQ(queued);
    std::string data;
    EXPECT_EQ(1, sut.receiveMsg(data));
    EXPECT_EQ("drop me", data);
}

TEST_F(CommsChannelTest, NameIsKeptAsGiven)
{
    CommsChannel sut("");
    EXPECT_EQ("", sut.channelName());
    CommsChannelIfc& asInterface = sut;
    EXPECT_EQ(&sut.channelName(), &asInterface.channelName());
}

TEST_F(CommsChannelTest, InterceptorIsStoredAndOutlivesTheChannel)
{
    RecordingInterceptor interceptor;
    {
        CommsChannel sut("", &interceptor);
        CommsChannelDataContainerMessage queued = message("x");
        sut.addToMsgQ(queued);
    }
    // Still a live object: the channel never deletes its interceptor.
    CCInterceptorContext context;
    CommsChannelDataContainerMessage probe = message("probe");
    context.setParams(&probe);
    EXPECT_EQ(1, interceptor.intercept(&context));
    EXPECT_EQ((std::vector<std::string>{"x", "probe"}), interceptor.seenData());
}

TEST_F(CommsChannelTest, DestroyingAChannelWithThreeQueuedMessagesDeletesAllThree)
{
    RecordingInterceptor interceptor;
    CommsChannel* sut = new CommsChannel("", &interceptor);
    for (const char* data : {"one", "two", "three"}) {
        CommsChannelDataContainerMessage queued = message(data);
        sut->addToMsgQ(queued);
    }
    // The interceptor saw the heap copies that the queue owns.
    const std::vector<CommsChannelDataContainerMessage*> copies = interceptor.seen();
    const std::vector<const CommsChannelDataContainerMessage*> queued = CommsChannelInspector::queuedObjects(*sut);
    ASSERT_EQ(queued, std::vector<const CommsChannelDataContainerMessage*>(copies.begin(), copies.end()));
    DeletionTracker tracker(copies);
    ASSERT_EQ(0u, tracker.deleted());

    delete sut;

    EXPECT_EQ(3u, tracker.deleted());
}

TEST_F(CommsChannelTest, DeletingThroughTheInterfaceDestroysTheChannel)
{
    RecordingInterceptor interceptor;
    CommsChannel* channel = new CommsChannel("", &interceptor);
    CommsChannelDataContainerMessage queued = message("one");
    channel->addToMsgQ(queued);
    const int fd = channel->socketHandle();
    DeletionTracker tracker(interceptor.seen());
    CommsChannelIfc* sut = channel;

    delete sut;

    EXPECT_EQ(1u, tracker.deleted());
    EXPECT_TRUE(descriptorIsClosed(fd));
}

TEST_F(CommsChannelTest, DestructorClosesTheSocket)
{
    CommsChannel* sut = new CommsChannel("");
    const int fd = sut->socketHandle();
    ASSERT_FALSE(descriptorIsClosed(fd));
    delete sut;
    EXPECT_TRUE(descriptorIsClosed(fd));
}

TEST_F(CommsChannelTest, ShutdownWakesOneBlockedReceiverPerCallAndEachReturnsZero)
{
    CommsChannel sut("");
    CommsChannelDataContainerMessage firstOut;
    CommsChannelDataContainerMessage secondOut;
    AsyncCall first([&] { return sut.receiveMsg(firstOut); });
    AsyncCall second([&] { return sut.receiveMsg(secondOut); });
    ASSERT_TRUE(first.stillBlocked());
    ASSERT_TRUE(second.stillBlocked());

    sut.shutdown();
    ASSERT_TRUE(cctest::waitUntil([&] { return first.done() || second.done(); }, channeltest::DEADLINE_MS));
    AsyncCall& woken = first.done() ? first : second;
    AsyncCall& other = first.done() ? second : first;
    EXPECT_EQ(0, woken.result());
    EXPECT_TRUE(other.stillBlocked());

    sut.shutdown();
    ASSERT_TRUE(other.finishedWithin());
    EXPECT_EQ(0, other.result());
    // Shut down for good: a message queued now is not handed out.
    CommsChannelDataContainerMessage late = message("late");
    sut.addToMsgQ(late);
    std::string data = "untouched";
    EXPECT_EQ(0, sut.receiveMsg(data));
    EXPECT_EQ("untouched", data);
}

TEST_F(CommsChannelTest, ShutdownLeavesQueuedMessagesQueuedUntilTheDestructorDeletesThem)
{
    RecordingInterceptor interceptor;
    CommsChannel* sut = new CommsChannel("", &interceptor);
    CommsChannelDataContainerMessage first = message("one");
    CommsChannelDataContainerMessage second = message("two");
    sut->addToMsgQ(first);
    sut->addToMsgQ(second);

    sut->shutdown();
    // Two message tokens and one from shutdown: three receives return 0
    // without waiting, and none of them takes a message.
    for (int i = 0; i < 3; ++i) {
        std::string data = "untouched";
        AsyncCall receive([&] { return sut->receiveMsg(data); });
        ASSERT_TRUE(receive.finishedWithin());
        EXPECT_EQ(0, receive.result());
        EXPECT_EQ("untouched", data);
    }
    EXPECT_EQ(2u, CommsChannelInspector::queueLength(*sut));

    DeletionTracker tracker(interceptor.seen());
    delete sut;
    EXPECT_EQ(2u, tracker.deleted());
}

TEST_F(CommsChannelTest, ChannelMadeWhileStdinIsClosedGetsDescriptorZeroAndRefusesToReceive)
{
    close(0);
    CommsChannel sut("");
    EXPECT_EQ(0, sut.socketHandle());
    EXPECT_GT(sut.port(), 0);
    CommsChannelDataContainerMessage queued = message("waiting");
    sut.addToMsgQ(queued);

    std::string data;
    AsyncCall receive([&] { return sut.receiveMsg(data); });
    ASSERT_TRUE(receive.finishedWithin());
    EXPECT_EQ(0, receive.result());
    EXPECT_EQ(1u, CommsChannelInspector::queueLength(sut));
}

TEST_F(CommsChannelTest, SocketCreationFailureIsReportedAndTheChannelIsStillBuiltAndInstalled)
{
    // The receiver needs descriptors of its own: let another channel make it.
    CommsChannel keeper("");
    const int installedBefore = CommsChannelReceiverInspector::channelCount();
    std::string reported;
    std::unique_ptr<CommsChannel> sut = channeltest::constructWithoutDescriptors("", &reported);

    ASSERT_NE(nullptr, sut);
    EXPECT_EQ(std::string("Error creating socket: ") + std::strerror(EMFILE) + "\n", reported);
    EXPECT_EQ(-1, sut->socketHandle());
    EXPECT_EQ(0, sut->port());
    EXPECT_EQ(installedBefore + 1, CommsChannelReceiverInspector::channelCount());
    sut.reset();
    EXPECT_EQ(installedBefore, CommsChannelReceiverInspector::channelCount());
}

TEST_F(CommsChannelTest, BindFailureIsReportedAndTheClosedDescriptorNumberIsKept)
{
    CommsChannel keeper("");
    // Only one ephemeral port in this test's network namespace, and it is
    // taken: the channel's bind to port 0 must fail.
    const std::string rangeFile = "/proc/sys/net/ipv4/ip_local_port_range";
    const std::string originalRange = cctest::readFile(rangeFile);
    cctest::UdpSocket occupier;
    ASSERT_TRUE(occupier.ok());
    {
        std::ofstream range(rangeFile.c_str());
        range << occupier.port() << " " << occupier.port() << "\n";
        range.close();
        ASSERT_TRUE(range.good()) << "cannot narrow " << rangeFile;
    }
    testing::internal::CaptureStderr();
    const int expectedDescriptor = cctest::nextFreeDescriptor();

    const int installedBefore = CommsChannelReceiverInspector::channelCount();
    std::unique_ptr<CommsChannel> sut(new CommsChannel(""));

    const std::string reported = testing::internal::GetCapturedStderr();
    {
        std::ofstream range(rangeFile.c_str());
        range << originalRange;
    }
    EXPECT_EQ(std::string("CommsChannel::createSocket bind: ") + std::strerror(EADDRINUSE) + "\n", reported);
    EXPECT_EQ(expectedDescriptor, sut->socketHandle());
    EXPECT_TRUE(descriptorIsClosed(sut->socketHandle()));
    EXPECT_EQ(0, sut->port());
    EXPECT_EQ(installedBefore + 1, CommsChannelReceiverInspector::channelCount());
}

}  // namespace
