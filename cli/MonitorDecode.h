// Turns the payload of one UDP datagram seen on loopback (or the joined
// pieces of a split encoding) into a MonitorEvent, with the message
// library's own decoders. A data container is read with peekDataContainer,
// so that a spool file stays for the process it was sent to.
// Pure functions apart from the message library's line on standard error
// for an encoding version it cannot read; any thread.
#ifndef COMMSCHANNEL_CLI_MONITOR_DECODE_H
#define COMMSCHANNEL_CLI_MONITOR_DECODE_H

#include "MonitorEvent.h"

#include <cstddef>

namespace cli {

// The size of the receiver's status-update datagram, sent from a port to
// itself.
const std::size_t STATUS_DATAGRAM_BYTES = 4;

// True when a datagram of this size between these ports is a receiver's
// status update.
bool isStatusDatagram(std::size_t length, int sourcePort, int destinationPort);

// Why a datagram of `length` bytes cannot even be framed as an encoding
// (shorter than the header, or a header total length below it: either ends
// the receiving of the process it reaches), or "" when it can.
std::string unframeableReason(const char* bytes, std::size_t length);

// Fills kind and the fields of *event (the ports and the time are the
// caller's) from one whole datagram: a status update, an undecodable
// datagram with its reason, or the message that the encoding at its start
// holds. An encoding whose header announces more bytes than there are is
// undecodable here; the caller joins split encodings first.
void decodeDatagram(const char* bytes, std::size_t length, MonitorEvent* event);

}  // namespace cli

#endif
