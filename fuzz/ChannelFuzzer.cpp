// Fuzz target: a live channel receiving hostile datagrams.
//
// Two unnamed channels live in this process, a target and a good peer.
// Unnamed channels never meet the locator, so this target needs no resolver
// and no namespace: everything is addressed by port. Each input is a list of
// datagrams (up to 16 and 32 KiB in all, each a u16 length, little-endian,
// and its bytes) that
// a raw UDP socket sends to the target channel's port. Then the peer sends
// one known data message to the same port through an inter-process
// dispatcher, and it must arrive intact.
//
// The target follows the receiver thread's framing on its side: a datagram
// that starts an encoding announces the total length in bytes 4 to 7, and
// further datagrams are joined until that many bytes are read (the rest of
// a datagram is dropped by the socket). From that it knows which encodings
// the receiver completes and what bytes each one holds. Expectations:
//   - the queue receives exactly one message per completed encoding, plus
//     the good one, each within a deadline;
//   - each holds the fields that decoding its bytes gives (a message that
//     does not decode is queued as an empty one, as the thread does), the
//     good one included; the queue is empty afterwards.
//
// Two adjustments keep every input meaningful and bounded:
//   - an announced length above MAX_ENCODING is folded below it, since a
//     long announcement only makes the receiver wait for more datagrams;
//   - an encoding still incomplete after the input's datagrams is completed
//     with zero bytes, as a slow but honest sender would, before the good
//     message goes out (it would otherwise be swallowed as a piece).
//
// Known exception: a datagram shorter than 8 bytes, or an announced length
// below 8, where an encoding starts, makes the receiver thread throw and end.
// This is the receiver's long-standing behaviour and is kept. The target
// then stops sending, checks that the thread has indeed ended, and starts
// afresh: it destroys both channels (the last one takes the receiver with
// it) and creates new ones for the next input.
#include "FuzzSupport.h"
#include "MessageFields.h"

#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelDispatcher.h"
#include "CommsException.h"
#include "WhiteBoxAccess.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using ccfuzz::declaredLength;
using ccfuzz::FuzzInput;
using ccfuzz::HEADER_SIZE;

const unsigned MAX_DATAGRAMS = 16;
// Largest total length announced to the receiver; together with the input
// this stays far below the channel socket's receive buffer, so no datagram
// is ever dropped by the kernel.
const std::uint32_t MAX_ENCODING = 16384;
// Bytes of one input's datagrams that are sent at most; the rest is ignored.
const std::size_t MAX_INPUT_BYTES = 32768;
const int RECEIVE_DEADLINE_MS = 5000;
const int THREAD_END_DEADLINE_MS = 5000;

struct LiveChannels {
    CommsChannel* target = nullptr;
    CommsChannel* peer = nullptr;
    int rawSocket = -1;
    long sequence = 0;
    // Threads of the process while the channels and their receiver live.
    int threadsWithReceiver = 0;
};

LiveChannels& live()
{
    static LiveChannels channels;
    return channels;
}

void stopChannels();
int threadCount();

void startChannels()
{
    LiveChannels& state = live();
    // The process ends with its channels destroyed, so that the receiver
    // thread is joined (and its thread-local buffers freed) before the leak
    // check at exit, rather than frozen in the middle of a pass.
    static const bool stopAtExit = std::atexit(stopChannels) == 0;
    (void)stopAtExit;
    state.target = new CommsChannel("");
    state.peer = new CommsChannel("");
    FUZZ_CHECK(state.target->port() > 0 && state.peer->port() > 0, "channels got no port");
    state.threadsWithReceiver = threadCount();
    if (state.rawSocket == -1) {
        state.rawSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        FUZZ_CHECK(state.rawSocket != -1, "raw sender socket");
    }
}

void stopChannels()
{
    LiveChannels& state = live();
    delete state.target;
    delete state.peer;
    state.target = nullptr;
    state.peer = nullptr;
}

void sendRaw(const std::vector<char>& datagram)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(live().target->port()));
    const ssize_t sent = sendto(live().rawSocket, datagram.data(), datagram.size(), 0,
                                reinterpret_cast<sockaddr*>(&address), sizeof address);
    FUZZ_CHECK(sent == static_cast<ssize_t>(datagram.size()), "sendto to the target channel");
}

// The fields a queued copy of a decoded message shows. The queue sets the
// priority from its own table, so the priority is left out.
std::string queuedFields(CommsChannelDataContainerMessage message)
{
    message.setPriority(VIREO_PRIORITY_LOW);
    return ccfuzz::messageFields(message);
}

// What the receiver thread queues for one complete encoding: a message
// decoded from a buffer of exactly that length.
std::string expectedFields(const std::vector<char>& encoding)
{
    CommsChannelDataContainerMessage message;
    std::vector<char> exact(encoding);
    message.decode(exact.data());
    return queuedFields(message);
}

// Follows the receiver's framing over the datagrams sent.
class Framing {
public:
    // False when this datagram, starting an encoding, ends the receiver
    // thread. May fold the announced length (see the top of the file).
    bool accept(std::vector<char>& datagram)
    {
        if (m_remaining == 0) {
            if (datagram.size() < HEADER_SIZE) {
                return false;
            }
            std::uint32_t length = declaredLength(datagram.data());
            if (length > MAX_ENCODING) {
                length = static_cast<std::uint32_t>(HEADER_SIZE + length % (MAX_ENCODING - HEADER_SIZE));
                ccfuzz::setDeclaredLength(datagram.data(), length);
            }
            if (length < HEADER_SIZE) {
                return false;
            }
            m_remaining = length;
            m_encoding.clear();
        }
        const std::size_t taken = std::min<std::size_t>(m_remaining, datagram.size());
        m_encoding.insert(m_encoding.end(), datagram.begin(), datagram.begin() + static_cast<long>(taken));
        m_remaining -= static_cast<std::uint32_t>(taken);
        if (m_remaining == 0) {
            m_completed.push_back(expectedFields(m_encoding));
        }
        return true;
    }
    std::uint32_t remaining() const { return m_remaining; }
    const std::vector<std::string>& completed() const { return m_completed; }

private:
    std::uint32_t m_remaining = 0;
    std::vector<char> m_encoding;
    std::vector<std::string> m_completed;
};

CommsChannelDataContainerMessage goodMessage(long sequence)
{
    CommsChannelDataContainerMessage message;
    message.setChannel("fuzz-target");
    message.setSourceChannel("good-peer");
    message.setProtocol("replay");
    message.setRequestId(sequence);
    message.setMsgType(2);
    const std::string data = "good message " + std::to_string(sequence);
    message.setData(data.data(), static_cast<int>(data.size()));
    return message;
}

// Threads of this process.
int threadCount()
{
    int count = 0;
    DIR* listing = opendir("/proc/self/task");
    if (listing == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(listing)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(listing);
    return count;
}

// The receiver thread is the one thread the channels add to the process:
// it has ended once the process is back below the count it had with them.
bool waitForReceiverThreadEnd()
{
    for (int waited = 0; waited < THREAD_END_DEADLINE_MS; ++waited) {
        if (threadCount() < live().threadsWithReceiver) {
            return true;
        }
        poll(nullptr, 0, 1);
    }
    return false;
}

// Takes n messages from the target's queue, each within the deadline.
std::vector<std::string> receiveAll(std::size_t n)
{
    std::vector<std::string> received;
    for (std::size_t i = 0; i < n; ++i) {
        CommsChannelDataContainerMessage message;
        int result = 0;
        try {
            result = CommsChannelInspector::getMsgFromQ(*live().target, message, RECEIVE_DEADLINE_MS);
        } catch (const CommsException&) {
            std::fprintf(stderr, "received %zu of %zu messages before the deadline\n", i, n);
            FUZZ_CHECK(false, "a message did not arrive within the deadline");
        }
        FUZZ_CHECK(result == 1, "a receive returned no message");
        received.push_back(queuedFields(message));
    }
    return received;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    LiveChannels& state = live();
    if (state.target == nullptr) {
        startChannels();
    }

    Framing framing;
    FuzzInput input(data, size);
    std::size_t sentBytes = 0;
    for (unsigned count = 0; count < MAX_DATAGRAMS && !input.empty(); ++count) {
        std::size_t length = 0;
        const std::uint8_t* bytes = input.bytes(input.u16(), &length);
        sentBytes += length;
        if (sentBytes > MAX_INPUT_BYTES) {
            break;
        }
        std::vector<char> datagram(bytes, bytes + length);
        const bool readable = framing.accept(datagram);
        sendRaw(datagram);
        if (!readable) {
            FUZZ_CHECK(waitForReceiverThreadEnd(), "the receiver thread survived an unreadable datagram");
            stopChannels();
            startChannels();
            return 0;
        }
    }
    while (framing.remaining() > 0) {
        std::vector<char> filler(std::min<std::uint32_t>(framing.remaining(), CCInterProcDispatcher::MAX_PIECE), 0);
        framing.accept(filler);
        sendRaw(filler);
    }

    CommsChannelDataContainerMessage good = goodMessage(++state.sequence);
    CCInterProcDispatcher toTarget(state.target->port());
    FUZZ_CHECK(toTarget.sendMsg(state.peer, good) == 1, "the good peer could not send");

    std::vector<std::string> expected = framing.completed();
    expected.push_back(queuedFields(good));
    std::vector<std::string> received = receiveAll(expected.size());
    FUZZ_CHECK(state.target->isQEmpty(), "more messages were queued than encodings were sent");
    std::sort(expected.begin(), expected.end());
    std::sort(received.begin(), received.end());
    FUZZ_CHECK(received == expected, "queued messages differ from the encodings sent");
    return 0;
}
