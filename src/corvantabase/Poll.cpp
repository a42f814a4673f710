#include "corvantabase/Poll.h"

#include "corvantabase/PollModule.h"

#include <tolv/log/Log.h>

void Poll_InitDefault()
{
    PollModule::Instance().Init();
}

void Poll_Exit()
{
    PollModule::Instance().Exit();
}

int Poll_CB_RTime(PollerFunction callback, void* clientData, int64_t delayUs, bool periodic, std::mutex* lock)
{
    return PollModule::Instance().AddTimer(callback, clientData, delayUs, periodic, lock);
}

bool Poll_CB_RTimeRemove(PollerFunction callback, void* clientData, bool periodic)
{
    return PollModule::Instance().RemoveTimer(callback, clientData, periodic);
}

void Poll_Loop(bool loop, PollExitFlag* exitFlag, PollClass pollClass)
{
    if (pollClass != POLL_CLASS_MAIN) {
        LOG_ERROR("Poll_Loop()", "Unsupported poll class %d.", static_cast<int>(pollClass));
        return;
    }
    PollModule::Instance().Loop(loop, exitFlag);
}
