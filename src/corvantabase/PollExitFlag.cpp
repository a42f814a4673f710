#include "corvantabase/PollExitFlag.h"

#include "corvantabase/PollModule.h"

void PollExitFlag::Raise() noexcept
{
    m_raised.store(true, std::memory_order_release);
    PollModule::Instance().Wake();
}
