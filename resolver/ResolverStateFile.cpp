#include "ResolverStateFile.h"

#include "ResolverPorts.h"
#include "ResolverTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

namespace resolver {

namespace {

const char HEADER[] = "commschannel-resolver-state 1";
const char HEX[] = "0123456789ABCDEF";

std::string escapeName(const std::string& name)
{
    std::string out;
    out.reserve(name.size());
    for (std::string::const_iterator it = name.begin(); it != name.end(); ++it) {
        const unsigned char byte = static_cast<unsigned char>(*it);
        if (byte > ' ' && byte < 0x7f && byte != '%') {
            out += static_cast<char>(byte);
        } else {
            out += '%';
            out += HEX[byte >> 4];
            out += HEX[byte & 0x0f];
        }
    }
    return out;
}

int hexValue(char digit)
{
    const char* found = std::strchr(HEX, digit);
    return digit != '\0' && found != nullptr ? static_cast<int>(found - HEX) : -1;
}

bool unescapeName(const std::string& text, std::string* name)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) {
            return false;
        }
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0) {
            return false;
        }
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    name->swap(out);
    return true;
}


// Splits a line at every blank. Two blanks in a row make an empty field,
// which no record accepts.
std::vector<std::string> fields(const std::string& line)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t blank = line.find(' ', start);
        parts.push_back(line.substr(start, blank == std::string::npos ? std::string::npos : blank - start));
        if (blank == std::string::npos) {
            return parts;
        }
        start = blank + 1;
    }
}

bool parseRecord(const std::string& line, ResolverTable* table)
{
    const std::vector<std::string> parts = fields(line);
    int port = 0;
    if (parts.size() == 2 && parts[0] == "locator" && parsePort(parts[1], &port)) {
        table->addLocator(port);
        return true;
    }
    int ownerPort = 0;
    std::string name;
    if (parts.size() == 4 && parts[0] == "channel" && parsePort(parts[1], &port) &&
        parsePort(parts[2], &ownerPort) && !parts[3].empty() && unescapeName(parts[3], &name)) {
        table->addChannel(name, port, ownerPort);
        return true;
    }
    return false;
}

std::string errnoText(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

std::string formatState(const ResolverTable& table)
{
    std::ostringstream out;
    out << HEADER << '\n';
    for (std::set<int>::const_iterator it = table.locators().begin(); it != table.locators().end(); ++it) {
        out << "locator " << *it << '\n';
    }
    const ResolverTable::ChannelMap& channels = table.channels();
    for (ResolverTable::ChannelMap::const_iterator it = channels.begin(); it != channels.end(); ++it) {
        out << "channel " << it->second.port << ' ' << it->second.ownerPort << ' ' << escapeName(it->first)
            << '\n';
    }
    return out.str();
}

bool parseState(const std::string& text, ResolverTable* table, int* badLines)
{
    *table = ResolverTable();
    *badLines = 0;
    std::istringstream in(text);
    std::string line;
    if (!std::getline(in, line) || line != HEADER) {
        return false;
    }
    while (std::getline(in, line)) {
        if (!line.empty() && !parseRecord(line, table)) {
            ++*badLines;
        }
    }
    return true;
}

LoadOutcome loadState(const std::string& path, ResolverTable* table, int* badLines, std::string* problem)
{
    *table = ResolverTable();
    *badLines = 0;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            return STATE_MISSING;
        }
        *problem = errnoText("cannot open", path);
        return STATE_INVALID;
    }
    std::string text;
    char buffer[8192];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            *problem = errnoText("cannot read", path);
            close(fd);
            return STATE_INVALID;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(got));
    }
    close(fd);
    if (!parseState(text, table, badLines)) {
        *problem = path + " is not a resolver state file";
        return STATE_INVALID;
    }
    return STATE_LOADED;
}

bool saveState(const std::string& path, const ResolverTable& table, std::string* problem)
{
    const std::string temporary = path + ".tmp";
    const std::string text = formatState(table);
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *problem = errnoText("cannot create", temporary);
        return false;
    }
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t put = ::write(fd, text.data() + written, text.size() - written);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            *problem = errnoText("cannot write", temporary);
            close(fd);
            unlink(temporary.c_str());
            return false;
        }
        written += static_cast<std::size_t>(put);
    }
    if (close(fd) != 0) {
        *problem = errnoText("cannot write", temporary);
        unlink(temporary.c_str());
        return false;
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        *problem = errnoText("cannot rename " + temporary + " to", path);
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace resolver
