// Asking a running resolver from a short-lived program: the whole table, the
// way any locator learns it, or the port of one name, the way a locator
// resolves a name it does not know. Used by commschannel-resolver --list and
// by the commschannel tool; neither needs a locator of its own, so neither
// waits for one.
//
// Each call opens a socket of its own on 127.0.0.1 and closes it before it
// returns. Safe to call from any thread.
#ifndef COMMSCHANNEL_RESOLVER_CLIENT_H
#define COMMSCHANNEL_RESOLVER_CLIENT_H

#include <map>
#include <string>

namespace resolver {

// How long fetchChannels waits for the resolver's first update (the
// registration is sent again half-way), the pause after the last update
// that ends the collection, and the longest collection after the first.
const int LIST_ANSWER_TIMEOUT_MS = 2000;
const int LIST_QUIET_GAP_MS = 200;
const int LIST_COLLECT_LIMIT_MS = 5000;
// How often queryPort and waitForName ask again while no resolver has
// answered (it may still be starting).
const int WAIT_REGISTRATION_INTERVAL_MS = 200;

// Registers as a locator at 127.0.0.1:resolverPort, collects the update(s)
// that answer, applies them in order to *channels (name to port) and
// unregisters again. Updates pushed by other locators in between are
// applied too, so the result is the table as it stood when the last update
// arrived. Returns false with *error set to a one-line reason when no
// socket could be made or no resolver answered within
// LIST_ANSWER_TIMEOUT_MS.
bool fetchChannels(int resolverPort, std::map<std::string, int>* channels, std::string* error);

// Sends a port request for name, again every WAIT_REGISTRATION_INTERVAL_MS
// while no answer has come, and waits up to timeoutMs for the answer with
// its request id. Returns the port, 0 when the resolver knows no such name,
// or -1 when no answer came (no resolver).
int queryPort(int resolverPort, const std::string& name, int timeoutMs);

// Registers as a locator and follows the updates the resolver pushes until
// name is in the table or timeoutMs have passed; unregisters before it
// returns. Returns true as soon as the name is known (at once when the first
// answer lists it). Needs no polling: every registration of a name reaches
// every registered locator.
bool waitForName(int resolverPort, const std::string& name, int timeoutMs);

}  // namespace resolver

#endif
