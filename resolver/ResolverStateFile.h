// The resolver's state file: the table written out after every change, so
// that a restarted resolver can take back the names of processes that are
// still running.
//
// The file is text, one record a line:
//
//   commschannel-resolver-state 1
//   locator <port>
//   channel <port> <owner port> <name>
//
// Ports are decimal. A name is written with every byte outside '!'..'~', and
// '%' itself, as %XX (two upper-case hex digits), so a line never holds a
// blank or a newline of the name's own. The first line names the format and
// its version; a file with another first line is not read at all.
//
// Saving writes "<path>.tmp" and renames it over the path, so a reader (or
// a resolver started after a crash) sees either the old or the new table,
// never half of one. The file is not synced to disk: it only has to outlive
// the resolver process, not the machine (its default place is /run).
//
// Stateless functions; safe from any thread for different paths.
#ifndef COMMSCHANNEL_RESOLVER_STATE_FILE_H
#define COMMSCHANNEL_RESOLVER_STATE_FILE_H

#include <string>

namespace resolver {

class ResolverTable;

// The file's text for a table.
std::string formatState(const ResolverTable& table);

// Reads a file's text into *table (which is cleared first). Records that do
// not parse, or carry a port outside 1..65535, are skipped and counted in
// *badLines. Returns false, leaving the table empty, when the first line is
// not the expected header.
bool parseState(const std::string& text, ResolverTable* table, int* badLines);

enum LoadOutcome {
    STATE_LOADED,   // the file was read (possibly with bad lines)
    STATE_MISSING,  // no file: a first start
    STATE_INVALID   // unreadable or not a state file; *problem says why
};

// Loads the file at path into *table (cleared first).
LoadOutcome loadState(const std::string& path, ResolverTable* table, int* badLines, std::string* problem);

// Writes the table to path atomically. False with *problem set when any
// step failed; the previous file is then left as it was.
bool saveState(const std::string& path, const ResolverTable& table, std::string* problem);

}  // namespace resolver

#endif
