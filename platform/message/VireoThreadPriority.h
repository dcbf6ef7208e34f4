// VireoThreadPriority: the queueing priority of a data message. A larger
// value is served earlier by a channel's receive queue.
#ifndef COMMSCHANNEL_VIREO_THREAD_PRIORITY_H
#define COMMSCHANNEL_VIREO_THREAD_PRIORITY_H

enum VireoThreadPriority {
    VIREO_PRIORITY_LOW = 0,
    VIREO_PRIORITY_NORMAL = 1,
    VIREO_PRIORITY_HIGH = 2
};

#endif
