#include "DispatcherDeleters.h"

#include "Semaphore.h"

#include <utility>
#include <vector>

namespace dispatcher_deleters {

namespace {

typedef std::vector<std::pair<const std::type_info*, Deleter>> Table;

// Classes added at run time. Lives as long as the process: a dispatcher may
// be released by the last send under way while the process exits.
Semaphore& tableLock()
{
    static Semaphore* lock = new Semaphore(Semaphore::AVAILABLE, 1, false);
    return *lock;
}

Table& addedClasses()  // guarded by tableLock
{
    static Table* table = new Table();
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
    tableLock().take(-1);
    Table& table = addedClasses();
    bool known = false;
    for (const auto& row : table) {
        known = known || *row.first == type;
    }
    if (!known) {
        table.push_back(std::make_pair(&type, deleter));
    }
    tableLock().give();
}

bool destroy(CommsChannelDispatcher* dispatcher)
{
    if (dispatcher == nullptr) {
        return true;
    }
    const std::type_info& type = typeid(*dispatcher);
    Deleter deleter = builtInDeleter(type);
    if (deleter == nullptr) {
        tableLock().take(-1);
        for (const auto& row : addedClasses()) {
            if (*row.first == type) {
                deleter = row.second;
            }
        }
        tableLock().give();
    }
    if (deleter == nullptr) {
        return false;
    }
    deleter(dispatcher);
    return true;
}

}  // namespace dispatcher_deleters
