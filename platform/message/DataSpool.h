// Private to the message library: the spool directory through which large
// message data travels beside its encoding instead of inside it.
//
// Files live in one fixed directory, "/tmp/commschannel-spool-<uid>", made on
// first use with mode 0700 and refused unless it is a real directory owned by
// the caller and closed to others. File names follow one pattern, "cc-" then
// 8 hex digits of the writer's pid, "-" and 16 hex digits; nothing else is
// ever opened there. A reader accepts only a regular file of the caller's
// own, of exactly the announced size, and removes it after reading.
//
// Safe to call from any thread.
#ifndef COMMSCHANNEL_DATA_SPOOL_H
#define COMMSCHANNEL_DATA_SPOOL_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace spool {

// The spool directory for this user.
std::string directory();

// True when name follows the spool file pattern.
bool isValidName(const std::string& name);

// Writes the bytes to a new spool file. Returns its name, or "" when the
// directory is unusable or the write failed (no file is then left behind).
std::string store(const char* data, std::size_t length);

// Reads the named file into out and removes it. Returns false, leaving out
// unchanged, when the name, the file or its size is not what store() makes.
bool retrieve(const std::string& name, std::uint64_t length, std::string& out);

// Removes a spool file that will never be read.
void discard(const std::string& name);

// Files older than this are taken to be orphans (their reader died) and are
// removed by later writers.
const int STALE_AFTER_SECONDS = 600;

}  // namespace spool

#endif
