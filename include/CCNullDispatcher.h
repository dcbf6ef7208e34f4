// CCNullDispatcher is declared with the rest of its family in CommsChannelDispatcher.h;
// this header lets code include it by the class's own name.
#ifndef COMMSCHANNEL_CCNULL_DISPATCHER_H
#define COMMSCHANNEL_CCNULL_DISPATCHER_H

#include "CommsChannelDispatcher.h"

#endif
