#include "MonitorNames.h"

namespace cli {

void MonitorNames::reset(const std::map<std::string, int>& channels)
{
    m_ports.clear();
    m_names.clear();
    for (const std::pair<const std::string, int>& channel : channels) {
        add(channel.first, channel.second);
    }
}

void MonitorNames::learn(const MonitorEvent& event)
{
    if (event.kind == "update") {
        for (const MonitorRow& row : event.rows) {
            if (row.added) {
                add(row.name, row.port);
            } else {
                remove(row.name);
            }
        }
    } else if (event.kind == "port_response" && event.port > 0) {
        add(event.name, event.port);
    }
}

bool MonitorNames::knows(int port) const { return m_names.count(port) != 0; }

bool MonitorNames::nameOf(int port, std::string* name) const
{
    const std::map<int, std::string>::const_iterator found = m_names.find(port);
    if (found == m_names.end()) {
        return false;
    }
    *name = found->second;
    return true;
}

void MonitorNames::add(const std::string& name, int port)
{
    remove(name);
    m_ports[name] = port;
    m_names[port] = name;
}

void MonitorNames::remove(const std::string& name)
{
    const std::map<std::string, int>::iterator found = m_ports.find(name);
    if (found == m_ports.end()) {
        return;
    }
    const std::map<int, std::string>::iterator owner = m_names.find(found->second);
    if (owner != m_names.end() && owner->second == name) {
        m_names.erase(owner);
    }
    m_ports.erase(found);
}

}  // namespace cli
