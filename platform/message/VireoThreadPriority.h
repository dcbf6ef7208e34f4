// VireoThreadPriority: the queueing priority of a data message. A larger
// value is served earlier by a channel's receive queue.
//
// The underlying type is fixed so that every int is a valid value: a decoded
// message may carry a priority other than the three named ones, and copying
// or reading it must stay defined.
#ifndef COMMSCHANNEL_VIREO_THREAD_PRIORITY_H
#define COMMSCHANNEL_VIREO_THREAD_PRIORITY_H

enum VireoThreadPriority : int {
    VIREO_PRIORITY_LOW = 0,
    VIREO_PRIORITY_NORMAL = 1,
    VIREO_PRIORITY_HIGH = 2
};

#endif
