#include "DispatcherDeleters.h"

#include "Mutex.h"

#include <utility>
#include <vector>

namespace dispatcher_deleters {

namespace {

// Classes added at run time, with the lock that guards them. Lives as long
// as the process: a dispatcher may be released by the last send under way
// while the process exits.
struct Table {
    Mutex lock;
    std::vector<std::pair<const std::type_info*, Deleter>> rows;  // guarded by lock
};

Table& addedClasses()
{
    static Table* const table = new Table();
    return *table;
}

// The library's own classes, found without a lock.
Deleter builtInDeleter(const std::type_info& type)
{
    if (type == typeid(CCIntraProcDispatcher)) {
        return &deleteAs<CCIntraProcDispatcher>;
    }
    if (type == typeid(CCInterProcDispatcher)) {
        return &deleteAs<CCInterProcDispatcher>;
    }
    if (type == typeid(CCDistribProcDispatcher)) {
        return &deleteAs<CCDistribProcDispatcher>;
    }
    if (type == typeid(CCNullDispatcher)) {
        return &deleteAs<CCNullDispatcher>;
    }
    return nullptr;
}

}  // namespace

void add(const std::type_info& type, Deleter deleter)
{
    if (builtInDeleter(type) != nullptr) {
        return;
    }
    Table& table = addedClasses();
    ScopedLock hold(table.lock);
    bool known = false;
    for (const auto& row : table.rows) {
        known = known || *row.first == type;
    }
    if (!known) {
        table.rows.push_back(std::make_pair(&type, deleter));
    }
}

bool destroy(CommsChannelDispatcher* dispatcher)
{
    if (dispatcher == nullptr) {
        return true;
    }
    const std::type_info& type = typeid(*dispatcher);
    Deleter deleter = builtInDeleter(type);
    if (deleter == nullptr) {
        Table& table = addedClasses();
        ScopedLock hold(table.lock);
        for (const auto& row : table.rows) {
            if (*row.first == type) {
                deleter = row.second;
            }
        }
    }
    if (deleter == nullptr) {
        return false;
    }
    deleter(dispatcher);
    return true;
}

}  // namespace dispatcher_deleters
