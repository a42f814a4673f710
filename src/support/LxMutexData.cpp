#include "support/LxMutexData.h"

#include "log/Log.h"

LxMutexData::LxMutexData(std::string name) : m_name(std::move(name))
{
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0)
        return;
    const bool configured = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                            pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST) == 0;
    m_valid = configured && pthread_mutex_init(&m_handle, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    if (!m_valid)
        LOG_ERROR("LxMutexData::LxMutexData()", "Cannot create mutex %s", m_name.c_str());
}

LxMutexData::~LxMutexData()
{
    if (m_valid)
        pthread_mutex_destroy(&m_handle);
}
