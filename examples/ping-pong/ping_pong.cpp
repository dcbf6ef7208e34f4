// Two processes that find each other by name and exchange messages: the
// client measures throughput and round-trip latency against an echoing
// server. Run without arguments; see README.md.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsException.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

const char SERVER_NAME[] = "demo-server";
const int REPLY_TIMEOUT_MS = 10000;
// Plain messages go out in windows of this many, each closed by a round
// trip, so that the server's socket buffer never overflows.
const int WINDOW = 40;

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

std::string selfPath()
{
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        return "";
    }
    path[n] = '\0';
    return path;
}

// True when something at 127.0.0.1:5000 answers a port request.
bool resolverAnswers(int timeoutMs)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(5000);
    CommsChannelPortRequestMessage probe;
    probe.setChannel("demo-probe");
    probe.setRequestId(1);
    int length = 0;
    const char* encoding = probe.encode(&length);
    bool answered = false;
    if (fd >= 0 && encoding != nullptr &&
        sendto(fd, encoding, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr*>(&address),
               sizeof address) == length) {
        pollfd watched{fd, POLLIN, 0};
        answered = poll(&watched, 1, timeoutMs) == 1;
    }
    if (fd >= 0) {
        close(fd);
    }
    return answered;
}

pid_t spawn(const std::vector<std::string>& argv, int* stdoutPipe)
{
    int fds[2] = {-1, -1};
    if (stdoutPipe != nullptr && pipe(fds) != 0) {
        return -1;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (stdoutPipe != nullptr) {
            dup2(fds[1], 1);
            close(fds[0]);
            close(fds[1]);
        }
        std::vector<char*> raw;
        for (const std::string& arg : argv) {
            raw.push_back(const_cast<char*>(arg.c_str()));
        }
        raw.push_back(nullptr);
        execvp(raw[0], raw.data());
        std::perror(argv[0].c_str());
        _exit(127);
    }
    if (stdoutPipe != nullptr) {
        close(fds[1]);
        *stdoutPipe = fds[0];
    }
    return pid;
}

// Echo server: answers every request with the same data and id, counts
// plain messages, and reports the count when asked.
int runServer()
{
    CommsChannel server(SERVER_NAME);
    std::printf("READY\n");
    std::fflush(stdout);
    long plainMessages = 0;
    CommsChannelDataContainerMessage request;
    while (server.receiveMsg(request) == 1) {
        const std::string data = request.getData();
        if (data == "quit") {
            break;
        }
        if (request.requestId() == 0) {
            ++plainMessages;
            continue;
        }
        CommsChannelDataContainerMessage reply;
        reply.setChannel(request.callbackChannel());
        reply.setRequestId(request.requestId());
        const std::string answer = data == "count?" ? std::to_string(plainMessages) : data;
        reply.setData(answer.data(), static_cast<int>(answer.size()));
        server.sendMsg(reply);
    }
    return 0;
}

struct Client {
    CommsChannel channel;
    long nextId = 1;

    explicit Client(const std::string& name) : channel(name) {}

    // Sends data as a request and waits for the reply with the same id.
    bool request(const std::string& data, std::string& reply)
    {
        CommsChannelDataContainerMessage message;
        message.setChannel(SERVER_NAME);
        message.setCallbackChannel(channel.channelName());
        message.setRequestId(nextId);
        message.setData(data.data(), static_cast<int>(data.size()));
        if (channel.sendMsg(message) != 1) {
            return false;
        }
        CommsChannelDataContainerMessage answer;
        try {
            channel.receiveMsg_ByID_Timed(answer, nextId++, REPLY_TIMEOUT_MS);
        } catch (const CommsException& timeout) {
            std::fprintf(stderr, "%s\n", timeout.what());
            return false;
        }
        reply = answer.getData();
        return true;
    }
};

int runClient(int messages, int requests)
{
    Client client("demo-client-" + std::to_string(getpid()));
    std::string reply;

    // Plain messages, paced in windows.
    const std::string payload(100, 'p');
    const Clock::time_point burstStart = Clock::now();
    int sent = 0;
    while (sent < messages) {
        const int window = std::min(WINDOW, messages - sent);
        for (int i = 0; i < window; ++i) {
            std::string text = payload;
            if (client.channel.sendMsg(SERVER_NAME, text) != 1) {
                std::fprintf(stderr, "plain send failed\n");
                return 1;
            }
        }
        sent += window;
        if (!client.request("count?", reply)) {
            return 1;
        }
    }
    const double burstSeconds = microsecondsSince(burstStart) / 1e6;
    const long delivered = std::atol(reply.c_str());

    // Request/reply round trips.
    std::vector<double> roundTrips;
    const std::string small(64, 'r');
    const Clock::time_point requestStart = Clock::now();
    for (int i = 0; i < requests; ++i) {
        const Clock::time_point start = Clock::now();
        if (!client.request(small, reply) || reply != small) {
            std::fprintf(stderr, "request %d failed\n", i);
            return 1;
        }
        roundTrips.push_back(microsecondsSince(start));
    }
    const double requestSeconds = microsecondsSince(requestStart) / 1e6;
    std::sort(roundTrips.begin(), roundTrips.end());

    // One message of 1 MiB there and back.
    std::string large(1 << 20, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 131 + 7);
    }
    const Clock::time_point largeStart = Clock::now();
    const bool largeOk = client.request(large, reply) && reply == large;
    const double largeMs = microsecondsSince(largeStart) / 1000;

    client.channel.sendMsg(SERVER_NAME, std::string("quit"));

    std::printf("plain messages:   %d sent, %ld delivered, %.0f messages/s\n", messages, delivered,
                messages / burstSeconds);
    if (!roundTrips.empty()) {
        std::printf("request/reply:    %d round trips, %.0f per second\n", requests, requests / requestSeconds);
        std::printf("round-trip time:  median %.1f us, 99th percentile %.1f us\n",
                    roundTrips[roundTrips.size() / 2], roundTrips[(roundTrips.size() * 99) / 100]);
    }
    std::printf("1 MiB request:    %s, %.1f ms there and back\n", largeOk ? "intact" : "CORRUPTED", largeMs);
    return largeOk && delivered == messages ? 0 : 1;
}

std::string findResolver(const std::string& given)
{
    if (!given.empty()) {
        return given;
    }
    const std::string self = selfPath();
    const std::string beside = self.substr(0, self.rfind('/') + 1) + "commschannel-resolver";
    return access(beside.c_str(), X_OK) == 0 ? beside : "commschannel-resolver";
}

}  // namespace

int main(int argc, char** argv)
{
    std::string resolverPath;
    int messages = 2000;
    int requests = 1000;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--server") {
            return runServer();
        } else if (arg == "--resolver" && i + 1 < argc) {
            resolverPath = argv[++i];
        } else if (arg == "--messages" && i + 1 < argc) {
            messages = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--requests" && i + 1 < argc) {
            requests = std::max(1, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr, "usage: %s [--resolver PATH] [--messages N] [--requests N]\n", argv[0]);
            return 2;
        }
    }

    pid_t resolver = -1;
    char stateDir[] = "/tmp/commschannel-demo-XXXXXX";
    std::string stateFile;
    if (!resolverAnswers(300)) {
        if (mkdtemp(stateDir) == nullptr) {
            std::perror("mkdtemp");
            return 1;
        }
        stateFile = std::string(stateDir) + "/resolver.state";
        resolver = spawn({findResolver(resolverPath), "--state-file", stateFile}, nullptr);
        bool up = false;
        for (int i = 0; i < 100 && !up; ++i) {
            up = resolverAnswers(100);
        }
        if (!up) {
            std::fprintf(stderr, "no resolver answers on 127.0.0.1:5000 and none could be started\n");
            kill(resolver, SIGKILL);
            waitpid(resolver, nullptr, 0);
            rmdir(stateDir);
            return 1;
        }
        std::printf("started commschannel-resolver (pid %d)\n", static_cast<int>(resolver));
    }

    int serverOut = -1;
    const pid_t server = spawn({selfPath(), "--server"}, &serverOut);
    char ready[16] = {0};
    const bool serverReady = server > 0 && read(serverOut, ready, sizeof ready - 1) > 0;
    const int result = serverReady ? runClient(messages, requests) : 1;

    int status = 0;
    if (server > 0) {
        if (!serverReady) {
            kill(server, SIGKILL);
        }
        waitpid(server, &status, 0);
        close(serverOut);
    }
    if (resolver > 0) {
        kill(resolver, SIGTERM);
        waitpid(resolver, nullptr, 0);
        unlink(stateFile.c_str());
        unlink((stateFile + ".tmp").c_str());
        rmdir(stateDir);
    }
    return result;
}
