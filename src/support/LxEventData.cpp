#include "support/LxEventData.h"

LxEventData::LxEventData(tolv::platform::UniqueFd fd, Kind kind, bool ownsHandle)
    : m_fd(std::move(fd)), m_kind(kind), m_ownsHandle(ownsHandle)
{
}

LxEventData::~LxEventData()
{
    if (!m_ownsHandle)
        (void)m_fd.release();
}
