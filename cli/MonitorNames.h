// The monitor's picture of which channel name owns which port: seeded from
// the resolver's table and kept current from the locator updates and port
// responses that the monitor sees. Not thread-safe; one monitor's thread.
#ifndef COMMSCHANNEL_CLI_MONITOR_NAMES_H
#define COMMSCHANNEL_CLI_MONITOR_NAMES_H

#include "MonitorEvent.h"

#include <map>
#include <string>

namespace cli {

class MonitorNames {
public:
    // Replaces the whole picture (name to port).
    void reset(const std::map<std::string, int>& channels);
    // Applies what an update or a port response says about names.
    void learn(const MonitorEvent& event);
    // True when some channel name owns the port.
    bool knows(int port) const;
    // The name that owns the port; false when none does.
    bool nameOf(int port, std::string* name) const;

private:
    void add(const std::string& name, int port);
    void remove(const std::string& name);

    std::map<std::string, int> m_ports;
    std::map<int, std::string> m_names;
};

}  // namespace cli

#endif
