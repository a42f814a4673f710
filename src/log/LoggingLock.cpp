#include "log/LoggingLock.h"

#include <tolv/log/LogBackEnd.h>

namespace tolv::log {

LxMutex& LoggingLock()
{
    // Never destroyed: threads may log while statics are torn down.
    static LxMutex* lock = [] {
        auto* made = new LxMutex(LoggingMutex(), "Logging");
        // An infinite wait on this lock must not warn through the logger it guards.
        made->SetDeadlockWarningMs(LxMutex::kInfinite);
        return made;
    }();
    return *lock;
}

} // namespace tolv::log
