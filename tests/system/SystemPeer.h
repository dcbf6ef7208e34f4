// Shared by the end-to-end tests in tests/system/: the "peer" child process
// that owns channels in another process and obeys line commands, and small
// helpers to describe, build and check messages.
//
// The peer child (run with cctest::ChildProcess("peer", {names...})):
// constructs one channel per name, prints "READY <port of the first>", then
// reads commands from standard input, one per line:
//   RECV <name> <n>          receive n messages (timed receive, id 0) and
//                            print one describe() line each ("MSG ..."),
//                            or "TIMEOUT" when one does not come
//   RECVSTR <name> <n>       receive n with receiveMsg(std::string&): "DATA <len>/<sum>"
//   RECVBUF <name> <n>       receive n with receiveMsg(char*, int*): "DATA <len>/<sum>"
//   WAITQ <name> <n>         wait until n messages are queued: "QUEUED <n>" or "TIMEOUT"
//   ECHO <name> <n>          receive n requests and answer each, to its
//                            callback channel, with its request id and data:
//                            "ECHOED <id>" each
//   COLLECT <name> <n>       receive n requests and keep them: "COLLECTED"
//   REPLY <name> <id>...     answer the kept requests in the order given: "REPLIED"
//   SEND <name> <dest> <len> <seed>  send pattern data (string overload): "SENT <result>"
//   BLAST <name> <dest> <n>  send n short messages at once: "BLASTED <results 1> <results 0>"
//   OPEN <name>              construct another channel: "OPENED <name> <port>"
//   CLOSE <name>             destroy it: "CLOSED <name>"
//   FORGET <name>            wait until the peer's locator no longer knows name
//                            from the resolver: "FORGOTTEN <name>" or "TIMEOUT"
//   PORTS                    "PORTS <first channel's port> <locator port> <receiver status port>"
//   SPAWN                    start /bin/sleep 60 as a helper program: "SPAWNED <pid>"
//   RECEIVERENDED            wait until the receiver thread found by the last PORTS
//                            has ended: "RECEIVER ENDED" or "TIMEOUT"
//   JOINING                  wait until the receiver thread found by the last PORTS
//                            waits for the rest of
//                            an encoding on the first channel: "JOINING" or "TIMEOUT"
//   QUIT (or end of input)   destroy every channel, newest first, print "BYE", exit 0
#ifndef COMMSCHANNEL_SYSTEM_PEER_H
#define COMMSCHANNEL_SYSTEM_PEER_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

class CommsChannel;
class CommsChannelDataContainerMessage;

namespace systest {

// How long a peer waits for one message before it reports "TIMEOUT".
const int PEER_RECEIVE_TIMEOUT_MS = 30000;
// Deadline for a line from a child.
const int LINE_TIMEOUT_MS = 30000;

// A deadline for something that must happen "within ms" on this machine:
// stretched when the tests run emulated or under a sanitizer, which slow
// every process down.
int within(int ms);

// 16 hex digits of the 64-bit FNV-1a hash of the bytes.
std::string checksum(const char* data, std::size_t length);
std::string checksum(const std::string& data);
// length bytes of a deterministic pattern (all byte values, zeros included).
std::string patternData(std::size_t length, unsigned int seed);

// One line naming every field of a received message; the data, callback
// context and remote context are given by length and checksum.
std::string describe(CommsChannelDataContainerMessage& message);
// The describe() line of the data-only receive operations.
std::string describeData(const std::string& data);

// The length of the message's encoding, measured on a copy.
int encodedLength(const CommsChannelDataContainerMessage& message);
// Fills the remote context so that the encoding is exactly total bytes.
// False when the other fields already need more.
bool padEncodingTo(CommsChannelDataContainerMessage& message, int total);

// Spool files ("cc-<pid>-...") that the process pid wrote and that still exist.
std::vector<std::string> spoolFilesOf(pid_t pid);

// Waits up to timeoutMs for n messages to be queued in the channel.
bool waitQueued(CommsChannel& channel, std::size_t n, int timeoutMs);

// Receives up to n messages with the timed receive (request id 0), one
// describe() line each; stops with "TIMEOUT" when one does not come.
std::vector<std::string> receiveDescribed(CommsChannel& channel, int n, int timeoutMs);

// Whether this process's locator has learnt name from the resolver.
bool locatorKnowsRemote(const std::string& name);

// The exact standard-output line of a send that nobody could take.
std::string nullDispatcherLine(const std::string& source, const std::string& destination,
                               const std::string& callback, const std::string& data);

// Splits a line into words.
std::vector<std::string> words(const std::string& line);

}  // namespace systest

#endif
