// commschannel-resolver: the name service of the CommsChannel processes on
// this host. See docs/resolver.md.
#include "CommsChannelVersion.h"
#include "ResolverList.h"
#include "ResolverLog.h"
#include "ResolverOptions.h"
#include "ResolverServer.h"

#include <cstdio>
#include <memory>
#include <string>

int main(int argc, char** argv)
{
    resolver::ResolverOptions options;
    std::string error;
    if (!resolver::parseResolverOptions(argc, argv, &options, &error)) {
        std::fprintf(stderr, "commschannel-resolver: %s\nTry 'commschannel-resolver --help'.\n", error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(resolver::resolverUsage().c_str(), stdout);
        return 0;
    }
    if (options.version) {
        std::printf("commschannel-resolver %s\n", COMMSCHANNEL_VERSION);
        return 0;
    }
    if (options.list) {
        return resolver::runList(options.port, stdout, stderr);
    }
    resolver::log::setLevel(options.verbose ? resolver::log::LEVEL_INFO : resolver::log::LEVEL_NOTICE);
    resolver::log::setTimestamps(options.verbose);

    resolver::ResolverServer server(options);
    // A resolver that cannot start says so on standard error even with
    // --syslog: whoever started it is looking there.
    if (!server.open()) {
        return 1;
    }
    std::unique_ptr<resolver::log::SyslogSink> syslogSink;
    if (options.syslog) {
        syslogSink.reset(new resolver::log::SyslogSink());
        resolver::log::setSink(syslogSink.get());
    }
    const int status = server.run();
    resolver::log::setSink(nullptr);
    return status;
}
