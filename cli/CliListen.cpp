// commschannel listen: a channel under the given name whose every message
// is printed, until a count is reached or SIGINT/SIGTERM arrives.
//
// The signals are blocked in every thread (the library's threads inherit the
// mask, so they must be blocked before the channel exists) and taken by a
// helper thread in sigwait(). That thread only calls shutdown() on the
// channel, which wakes the blocked receive; the main thread then leaves the
// loop and destroys the channel the normal way, unregistering its name.
//
// A name that another process holds is taken over (the latest registration
// wins) and said so on standard error; the resolver gives it back to that
// process when the listener withdraws it.
#include "CliCommands.h"
#include "CliSupport.h"
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "ProcSocketOwners.h"
#include "ResolverClient.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

namespace cli {

namespace {

// Waits for SIGINT or SIGTERM and shuts the channel down, unless the main
// thread finished first: it then raises SIGTERM itself to end the wait, and
// joins this thread before the channel goes.
void stopOnSignal(sigset_t signals, CommsChannel* channel, const std::atomic<bool>* finished)
{
    int received = 0;
    while (sigwait(&signals, &received) != 0) {
    }
    if (!finished->load()) {
        channel->shutdown();
    }
}

bool printMessage(const CliOptions& options, CommsChannelDataContainerMessage& message)
{
    const MessageView view = viewOf(message);
    const std::string line = (options.json ? formatMessageJson(view) : formatMessageLine(view)) + "\n";
    return std::fwrite(line.data(), 1, line.size(), stdout) == line.size() && std::fflush(stdout) == 0;
}

// Warns when another process holds the name: listening takes it over.
void warnOfTakeover(const std::string& name)
{
    const int port = resolver::queryPort(COMMSCHANNEL_RESOLVER_PORT, name, RESOLVER_ANSWER_TIMEOUT_MS);
    if (port <= 0) {
        return;
    }
    const int pid = resolver::findPortOwner(port);
    const std::string holder =
        pid > 0 ? "pid " + std::to_string(pid) + " (" + resolver::processName(pid) + ")" : std::string("a process");
    std::fprintf(stderr,
                 "commschannel listen: warning: \"%s\" is registered by %s at port %d; listening takes the name "
                 "over until this listener ends, then the resolver gives it back\n",
                 escapeBytes(name).c_str(), holder.c_str(), port);
}

}  // namespace

int runListen(const CliOptions& options)
{
    if (!nameFitsResolver(COMMAND_LISTEN, options.name)) {
        return EXIT_USAGE;
    }
    if (!resolverKnows(COMMAND_LISTEN, std::string())) {
        return EXIT_FAILED;
    }
    warnOfTakeover(options.name);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A reader that went away ends the loop through a failed write instead
    // of killing us before the name is withdrawn.
    signal(SIGPIPE, SIG_IGN);

    int status = EXIT_OK;
    {
        CommsChannel channel(options.name);
        std::atomic<bool> finished(false);
        std::thread stopper(stopOnSignal, signals, &channel, &finished);
        for (long received = 0; options.count == 0 || received < options.count; ++received) {
            CommsChannelDataContainerMessage message;
            if (channel.receiveMsg(message) != 1) {
                break;  // shut down by a signal
            }
            if (!printMessage(options, message)) {
                status = fail(COMMAND_LISTEN, "cannot write to standard output");
                break;
            }
        }
        finished.store(true);
        kill(getpid(), SIGTERM);
        stopper.join();
    }
    return status;
}

}  // namespace cli
