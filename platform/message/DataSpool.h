// Private to the message library: the spool directory through which large
// message data travels beside its encoding instead of inside it.
//
// Each writing user has one fixed directory, "/tmp/commschannel-spool-<uid>",
// made on first use with mode 0770 (the writer and its group, nobody else)
// and refused unless it is a real directory owned by that user and closed to
// others. Files are 0640: whoever the system lets into the directory and the
// writer's group may read them (root always can, processes of the writer's
// group can), no other user can. File names follow one pattern, "cc-" then
// 8 hex digits of the writer's pid, "-" and 16 hex digits; nothing else is
// ever opened there. A reader accepts only a regular file owned by the
// writer, of exactly the announced size, and removes it after reading. A
// reader that cannot read a file it was sent says so on standard error with
// the file's path.
//
// Safe to call from any thread.
#ifndef COMMSCHANNEL_DATA_SPOOL_H
#define COMMSCHANNEL_DATA_SPOOL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/types.h>

namespace spool {

// The spool directory of this process's effective user.
std::string directory();

// The spool directory of the given writing user.
std::string directoryOf(uid_t owner);

// The user whose directory store() writes to: the effective user id.
uid_t writerId();

// True when name follows the spool file pattern.
bool isValidName(const std::string& name);

// Writes the bytes to a new spool file. Returns its name, or "" when the
// directory is unusable or the write failed (no file is then left behind).
std::string store(const char* data, std::size_t length);

// Reads the named file of the given writer into out and removes it. Returns
// false, leaving out unchanged, when the name, the file or its size is not
// what store() makes; for a name that follows the pattern it also writes one
// line on standard error naming the file and the reason.
bool retrieve(const std::string& name, uid_t owner, std::uint64_t length, std::string& out);

// Removes a spool file that will never be read.
void discard(const std::string& name);

// Files older than this are taken to be orphans (their reader died or could
// not read them) and are removed by the next sweep of a later writer of the
// same user; a writer sweeps at most once a minute.
const int STALE_AFTER_SECONDS = 600;

}  // namespace spool

#endif
