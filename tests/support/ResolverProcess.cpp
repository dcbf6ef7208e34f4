#include "ResolverProcess.h"

#include "ChildProcess.h"
#include "CommsChannelMessage.h"
#include "CommsChannelMessageCreator.h"
#include "CommsChannelPortRequestMessage.h"
#include "CommsChannelPortResponseMessage.h"
#include "ResolverPort.h"
#include "TestUtil.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>

#ifndef COMMSCHANNEL_RESOLVER_PATH
#define COMMSCHANNEL_RESOLVER_PATH "commschannel-resolver"
#endif

namespace cctest {
namespace {
std::atomic<int> stateFileCounter{0};
}

ResolverProcess::ResolverProcess(const std::vector<std::string>& extraArgs, int startTimeoutMs)
    : m_pid(-1), m_started(false), m_ended(false)
{
    m_stateFile = "/tmp/cc-test-resolver-" + std::to_string(getpid()) + "-" +
                  std::to_string(stateFileCounter.fetch_add(1)) + ".state";
    std::remove(m_stateFile.c_str());
    m_args = {COMMSCHANNEL_RESOLVER_PATH, "--state-file", m_stateFile};
    m_args.insert(m_args.end(), extraArgs.begin(), extraArgs.end());
    start(startTimeoutMs);
}

ResolverProcess::~ResolverProcess()
{
    if (m_pid > 0 && !m_ended) {
        kill(m_pid, SIGTERM);
        if (waitForPid(m_pid, 5000) == -1) {
            std::fprintf(stderr, "resolver did not stop on SIGTERM\n");
        }
    }
    std::remove(m_stateFile.c_str());
    std::remove((m_stateFile + ".tmp").c_str());
}

bool ResolverProcess::start(int startTimeoutMs)
{
    m_ended = false;
    m_pid = spawnProgram(m_args);
    m_started = m_pid > 0 && waitUntil([] { return answers(200); }, startTimeoutMs);
    return m_started;
}

void ResolverProcess::sendSignal(int signalNumber)
{
    if (m_pid > 0 && !m_ended) {
        kill(m_pid, signalNumber);
    }
}

int ResolverProcess::wait(int timeoutMs)
{
    if (m_pid <= 0 || m_ended) {
        return -1;
    }
    m_ended = true;
    return waitForPid(m_pid, timeoutMs);
}

bool ResolverProcess::restart(int startTimeoutMs)
{
    if (m_pid > 0 && !m_ended) {
        kill(m_pid, SIGTERM);
        waitForPid(m_pid, 5000);
    }
    return start(startTimeoutMs);
}

bool ResolverProcess::answers(int timeoutMs) { return queryPort("cc-test-probe", timeoutMs) >= 0; }

int ResolverProcess::queryPort(const std::string& name, int timeoutMs)
{
    static std::atomic<long> requestIds{1000000};
    UdpSocket socket;
    if (!socket.ok()) {
        return -1;
    }
    CommsChannelPortRequestMessage request;
    const long requestId = requestIds.fetch_add(1);
    request.setRequestId(requestId);
    request.setChannel(name);
    int length = 0;
    const char* encoding = request.encode(&length);
    if (encoding == nullptr || socket.sendTo(COMMSCHANNEL_RESOLVER_PORT, encoding, static_cast<std::size_t>(length)) != length) {
        return -1;
    }
    const long long deadline = nowMs() + timeoutMs;
    std::string reply;
    CommsChannelMessageCreator creator;
    while (socket.receive(reply, static_cast<int>(std::max(0LL, deadline - nowMs())))) {
        std::unique_ptr<CommsChannelMessage> message(
            creator.decodeMessage(reply.data(), static_cast<unsigned int>(reply.size())));
        if (message && message->type() == COMMS_MSG_PORT_RESPONSE) {
            CommsChannelPortResponseMessage* response = static_cast<CommsChannelPortResponseMessage*>(message.get());
            if (response->requestId() == requestId) {
                return response->port();
            }
        }
    }
    return -1;
}

}  // namespace cctest
