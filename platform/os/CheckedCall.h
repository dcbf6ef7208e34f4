// CheckedCall: how platform/ treats a failed pthread call. Those calls fail
// only when the caller misuses them (a destroyed or foreign mutex, a bad
// attribute), never because of anything another process sends, so there is
// nothing sensible to go on with: we name the call and end the process.
// Usable from any thread; no state.
#ifndef COMMSCHANNEL_CHECKED_CALL_H
#define COMMSCHANNEL_CHECKED_CALL_H

namespace platform_check {

// Writes "CommsChannel: <what> failed: <strerror(rc)>" as one line to
// standard error and aborts. Never returns.
[[noreturn]] void abortWithError(int rc, const char* what);

// For the pthread calls, which return 0 or an error number (they do not set
// errno). Returns only when rc is 0; what names the call, e.g.
// "pthread_mutex_lock".
inline void abortOnError(int rc, const char* what)
{
    if (rc != 0) {
        abortWithError(rc, what);
    }
}

}  // namespace platform_check

#endif
