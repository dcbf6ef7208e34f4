#include "Threader.h"

#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <map>

namespace {

// Threads started by spawn and not yet released. joining marks a thread that
// some caller is joining right now; others wait on joinDone until it is gone.
// serial tells records of the same id apart: the system may give a joined
// thread's id to a new thread before its joiner has removed the old record.
struct ThreadRecord {
    bool joining = false;
    unsigned long long serial = 0;
};
unsigned long long lastSerial = 0;  // guarded by registryMutex

// Never destroyed: a thread may still be ending while the process exits.
pthread_mutex_t registryMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t joinDone = PTHREAD_COND_INITIALIZER;
std::map<unsigned long, ThreadRecord>& registry()
{
    static std::map<unsigned long, ThreadRecord>* threads =
        new std::map<unsigned long, ThreadRecord>();
    return *threads;
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
    pthread_attr_init(&attributes);
    if (stackSize > 0) {
        pthread_attr_setstacksize(&attributes, static_cast<size_t>(stackSize));
    }
    StartRecord* start = new StartRecord{entry, argument, name};

    // The registry lock is held across pthread_create so that the id is
    // stored and recorded before anyone can look for it.
    pthread_mutex_lock(&registryMutex);
    pthread_t thread;
    const int rc = pthread_create(&thread, &attributes, threadMain, start);
    pthread_attr_destroy(&attributes);
    if (rc != 0) {
        pthread_mutex_unlock(&registryMutex);
        delete start;
        errno = rc;
        perror("Threader::spawn pthread_create");
        return 0;
    }
    const unsigned long id = static_cast<unsigned long>(thread);
    // A record already under this id belongs to a thread that has been
    // joined (that is when an id is given out again) but whose joiner has
    // not yet removed it: it is replaced, and its joiner leaves this one be.
    ThreadRecord record;
    record.serial = ++lastSerial;
    registry()[id] = record;
    if (threadIdOut != nullptr) {
        *threadIdOut = id;
    }
    pthread_mutex_unlock(&registryMutex);

    if (!name.empty()) {
        pthread_setname_np(thread, name.substr(0, 15).c_str());
    }
    return 1;
}

void Threader::waitForThreadCompletion(unsigned long threadId)
{
    if (threadId == static_cast<unsigned long>(pthread_self())) {
        return;
    }
    pthread_mutex_lock(&registryMutex);
    unsigned long long serial = 0;
    for (;;) {
        std::map<unsigned long, ThreadRecord>::iterator it = registry().find(threadId);
        if (it == registry().end()) {
            // Never started here, or already joined and released.
            pthread_mutex_unlock(&registryMutex);
            return;
        }
        if (!it->second.joining) {
            it->second.joining = true;
            serial = it->second.serial;
            break;
        }
        pthread_cond_wait(&joinDone, &registryMutex);
    }
    pthread_mutex_unlock(&registryMutex);

    pthread_join(static_cast<pthread_t>(threadId), nullptr);

    pthread_mutex_lock(&registryMutex);
    // Only this thread's own record: between the join and this point the id
    // may already name a newly spawned thread, whose record must stay.
    std::map<unsigned long, ThreadRecord>::iterator it = registry().find(threadId);
    if (it != registry().end() && it->second.serial == serial) {
        registry().erase(it);
    }
    pthread_cond_broadcast(&joinDone);
    pthread_mutex_unlock(&registryMutex);
}
