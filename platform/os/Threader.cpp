#include "Threader.h"

#include "CheckedCall.h"
#include "Mutex.h"

#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <map>

namespace {

// A thread started by spawn and not yet released. joining marks a thread
// that some caller is joining right now; others wait on joinDone until it is
// gone. serial tells records of the same id apart: the system may give a
// joined thread's id to a new thread before its joiner has removed the old
// record.
struct ThreadRecord {
    bool joining = false;
    unsigned long long serial = 0;
};

// The threads of the process that spawn started and nobody has released
// yet, with the lock that guards them.
struct ThreadRegistry {
    Mutex mutex;
    ConditionVariable joinDone;  // waits on mutex
    unsigned long long lastSerial = 0;              // guarded by mutex
    std::map<unsigned long, ThreadRecord> records;  // guarded by mutex
};

// One per process, never destroyed: a thread may still be ending while the
// process exits.
ThreadRegistry& registry()
{
    static ThreadRegistry* const instance = new ThreadRegistry();
    return *instance;
}

struct StartRecord {
    Threader::EntryFunction entry;
    void* argument;
    std::string name;
};

void reportEscape(const std::string& name, const char* text)
{
    const char* label = name.empty() ? "(unnamed)" : name.c_str();
    // Standard error only: the library's one system-log message is the
    // receive queue's length warning.
    std::fprintf(stderr, "Threader: thread %s ended by an uncaught exception: %s\n", label, text);
}

void* threadMain(void* raw)
{
    StartRecord start = *static_cast<StartRecord*>(raw);
    delete static_cast<StartRecord*>(raw);
    try {
        return start.entry(start.argument);
    } catch (const std::exception& e) {
        reportEscape(start.name, e.what());
    } catch (const std::string& text) {
        reportEscape(start.name, text.c_str());
    } catch (const char* text) {
        reportEscape(start.name, text != nullptr ? text : "(null)");
    } catch (...) {
        // pthread_exit and cancellation unwind the thread with a foreign
        // exception that has no C++ object, so current_exception() is empty
        // for it. It must go on: swallowing it would abort the process.
        // (Catching abi::__forced_unwind& instead binds a reference to that
        // missing object, which the undefined-behaviour sanitizer rejects.)
        if (!std::current_exception()) {
            throw;
        }
        reportEscape(start.name, "exception of unknown type");
    }
    return nullptr;
}

// Attributes for a new thread: the default ones, with the stack size asked
// for when there is one.
void initAttributes(pthread_attr_t* attributes, int stackSize)
{
    platform_check::abortOnError(pthread_attr_init(attributes), "pthread_attr_init");
    if (stackSize > 0) {
        const int rc = pthread_attr_setstacksize(attributes, static_cast<size_t>(stackSize));
        // EINVAL means a size below the system's minimum: the thread then
        // gets the default stack, as it always has. Callers rely on that.
        if (rc != EINVAL) {
            platform_check::abortOnError(rc, "pthread_attr_setstacksize");
        }
    }
}

// Records a thread that has just been created.
// REQUIRES: registry().mutex is held.
void recordThread(unsigned long id)
{
    // A record already under this id belongs to a thread that has been
    // joined (that is when an id is given out again) but whose joiner has
    // not yet removed it: it is replaced, and its joiner leaves this one be.
    ThreadRegistry& threads = registry();
    ThreadRecord record;
    record.serial = ++threads.lastSerial;
    threads.records[id] = record;
}

// Marks threadId as being joined by the caller and returns its record's
// serial, once no other caller is joining it; 0 when there is nothing to
// join (never started here, or already joined and released).
unsigned long long claimJoin(unsigned long threadId)
{
    ThreadRegistry& threads = registry();
    ScopedLock hold(threads.mutex);
    for (;;) {
        std::map<unsigned long, ThreadRecord>::iterator it = threads.records.find(threadId);
        if (it == threads.records.end()) {
            return 0;
        }
        if (!it->second.joining) {
            it->second.joining = true;
            return it->second.serial;
        }
        threads.joinDone.wait(threads.mutex);
    }
}

// Drops the record claimJoin() marked, and wakes the callers that wait to
// join the same id.
void releaseJoin(unsigned long threadId, unsigned long long serial)
{
    ThreadRegistry& threads = registry();
    ScopedLock hold(threads.mutex);
    // Only this thread's own record: between the join and this point the id
    // may already name a newly spawned thread, whose record must stay.
    std::map<unsigned long, ThreadRecord>::iterator it = threads.records.find(threadId);
    if (it != threads.records.end() && it->second.serial == serial) {
        threads.records.erase(it);
    }
    threads.joinDone.broadcast();
}

}  // namespace

Threader::Threader() = default;

Threader::~Threader() = default;

int Threader::spawn(unsigned long* threadIdOut, EntryFunction entry, void* argument,
                    std::string name, TarnThreadPriority /*priority*/, int stackSize)
{
    if (threadIdOut != nullptr) {
        *threadIdOut = 0;
    }
    if (entry == nullptr) {
        return 0;
    }
    pthread_attr_t attributes;
    initAttributes(&attributes, stackSize);
    StartRecord* start = new StartRecord{entry, argument, name};

    pthread_t thread;
    {
        // The registry lock is held across pthread_create so that the id is
        // stored and recorded before anyone can look for it.
        ScopedLock hold(registry().mutex);
        const int rc = pthread_create(&thread, &attributes, threadMain, start);
        platform_check::abortOnError(pthread_attr_destroy(&attributes), "pthread_attr_destroy");
        if (rc != 0) {
            // Running out of threads or memory is not a programming error:
            // the caller learns of it from the result.
            delete start;
            errno = rc;
            perror("Threader::spawn pthread_create");
            return 0;
        }
        const unsigned long id = static_cast<unsigned long>(thread);
        recordThread(id);
        if (threadIdOut != nullptr) {
            *threadIdOut = id;
        }
    }

    // Deliberately unchecked: naming fails when the thread has already
    // ended, which is no fault, and the name only helps debuggers.
    if (!name.empty()) {
        (void)pthread_setname_np(thread, name.substr(0, 15).c_str());
    }
    return 1;
}

void Threader::waitForThreadCompletion(unsigned long threadId)
{
    if (threadId == static_cast<unsigned long>(pthread_self())) {
        return;
    }
    const unsigned long long serial = claimJoin(threadId);
    if (serial == 0) {
        return;
    }
    platform_check::abortOnError(pthread_join(static_cast<pthread_t>(threadId), nullptr), "pthread_join");
    releaseJoin(threadId, serial);
}
