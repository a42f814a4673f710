#include "support/LxMutexData.h"

#include <tolv/log/Log.h>

LxMutexData::LxMutexData(std::string name) : m_name(std::move(name))
{
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0)
        return;
    const bool configured = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                            pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST) == 0;
    m_valid = configured && pthread_mutex_init(&m_own, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    if (!m_valid)
        LOG_ERROR("LxMutexData::LxMutexData()", "Cannot create mutex %s", m_name.c_str());
}

LxMutexData::LxMutexData(pthread_mutex_t& adopted, std::string name)
    : m_handle(&adopted), m_owned(false), m_valid(true), m_name(std::move(name))
{
}

LxMutexData::~LxMutexData()
{
    if (m_valid && m_owned)
        pthread_mutex_destroy(&m_own);
}
