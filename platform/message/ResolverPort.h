// The port at which the resolver listens on 127.0.0.1. Channels and the
// tools find the resolver here without any configuration, so it is fixed;
// a resolver started with --port elsewhere is not found by them.
#ifndef COMMSCHANNEL_RESOLVER_PORT_H
#define COMMSCHANNEL_RESOLVER_PORT_H

constexpr int COMMSCHANNEL_RESOLVER_PORT = 5000;

#endif
