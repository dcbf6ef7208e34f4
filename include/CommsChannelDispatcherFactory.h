// CommsChannelDispatcherFactory is declared with the rest of its family in CommsChannelDispatcher.h;
// this header lets code include it by the class's own name.
#ifndef COMMSCHANNEL_COMMS_CHANNEL_DISPATCHER_FACTORY_H
#define COMMSCHANNEL_COMMS_CHANNEL_DISPATCHER_FACTORY_H

#include "CommsChannelDispatcher.h"

#endif
