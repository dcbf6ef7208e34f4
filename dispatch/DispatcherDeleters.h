// Private to the library: how a dispatcher is deleted.
//
// CommsChannelDispatcher has no virtual destructor, so that each dispatcher's
// virtual table holds sendMsg and nothing else. Deleting a dispatcher through
// a CommsChannelDispatcher* would therefore be undefined, and a sized delete
// of the wrong size is exactly what AddressSanitizer reports. Instead every
// owner deletes a dispatcher through its own class: the class is polymorphic,
// so typeid(*dispatcher) names the class it was created as, and a small table
// maps that class to a deleter. The four classes of the library are always in
// the table; other classes (a test's own dispatcher, say) are added once by
// whoever defines them, before an owner may have to delete one.
//
// Thread safety: every call may come from any thread at any time.
//
// Usage:
//   dispatcher_deleters::add<CountingDispatcher>();   // once, for a class of one's own
//   entry.setDispatcher(new CountingDispatcher());    // the entry deletes it through its class
#ifndef COMMSCHANNEL_DISPATCHER_DELETERS_H
#define COMMSCHANNEL_DISPATCHER_DELETERS_H

#include "CommsChannelDispatcher.h"

#include <type_traits>
#include <typeinfo>

namespace dispatcher_deleters {

typedef void (*Deleter)(CommsChannelDispatcher* dispatcher);

// Deletes a dispatcher that was created as a Concrete.
template <typename Concrete>
void deleteAs(CommsChannelDispatcher* dispatcher)
{
    delete static_cast<Concrete*>(dispatcher);
}

// Records how to delete dispatchers whose class is type. Adding a class a
// second time changes nothing.
void add(const std::type_info& type, Deleter deleter);

// The same for Concrete. Only a final class can be deleted through its own
// type without a virtual destructor, so only final classes are accepted.
template <typename Concrete>
void add()
{
    static_assert(std::is_final<Concrete>::value, "a dispatcher deleted through its own class must be final");
    static_assert(std::is_base_of<CommsChannelDispatcher, Concrete>::value, "not a dispatcher");
    add(typeid(Concrete), &deleteAs<Concrete>);
}

// Deletes dispatcher through the class it was created as. Null does nothing.
// A dispatcher of a class that nobody added cannot be deleted correctly
// here (its size and destructor are unknown); it is left alone, never
// deleted through the wrong type. Returns false in that case.
bool destroy(CommsChannelDispatcher* dispatcher);

}  // namespace dispatcher_deleters

#endif
