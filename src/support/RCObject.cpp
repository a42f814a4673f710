#include "support/RCObject.h"

#include "support/RCPtr.h"
#include "support/WkReference.h"

std::mutex& RCObject::CountLock()
{
    // Never destroyed: objects may be released from static destructors.
    static std::mutex* lock = new std::mutex;
    return *lock;
}

RCObject::~RCObject()
{
    // A destroyed object that was never counted (a member or a local) still
    // cuts its weak reference.
    WkReference* weak = nullptr;
    {
        std::lock_guard<std::mutex> guard(CountLock());
        weak = std::exchange(m_weak, nullptr);
        if (weak)
            weak->m_target = nullptr;
    }
    if (weak)
        weak->Release();
}

void RCObject::AddRef() const
{
    std::lock_guard<std::mutex> guard(CountLock());
    ++m_refCount;
}

void RCObject::Release() const
{
    WkReference* weak = nullptr;
    {
        std::lock_guard<std::mutex> guard(CountLock());
        const int32_t count = --m_refCount;
        if (count >= 1) {
            OnReleasedTo(count);
            return;
        }
        // Cut the weak reference before anybody can see a finalised object.
        weak = std::exchange(m_weak, nullptr);
        if (weak)
            weak->m_target = nullptr;
    }
    if (weak)
        weak->Release();
    auto* self = const_cast<RCObject*>(this);
    if (!self->OnFinalRelease())
        delete self;
}

int32_t RCObject::GetRefCount() const
{
    std::lock_guard<std::mutex> guard(CountLock());
    return m_refCount;
}

WkReference* RCObject::CreateWeakReference() const
{
    return new WkReference(this);
}

RCPtr<WkReference> RCObject::GetWeakReference() const
{
    {
        std::lock_guard<std::mutex> guard(CountLock());
        if (m_weak) {
            ++m_weak->m_refCount;
            return RCPtr<WkReference>::Adopt(m_weak);
        }
    }
    // Made outside the lock (it allocates and may be overridden); the first
    // one stored wins.
    WkReference* made = CreateWeakReference();
    WkReference* loser = nullptr;
    RCPtr<WkReference> result;
    {
        std::lock_guard<std::mutex> guard(CountLock());
        if (!m_weak) {
            m_weak = made;
            made->m_refCount = 1; // the object's own count of it
        } else {
            loser = made;
        }
        ++m_weak->m_refCount;
        result = RCPtr<WkReference>::Adopt(m_weak);
    }
    delete loser;
    return result;
}

RCPtr<RCObject> WkReference::Lock() const
{
    std::lock_guard<std::mutex> guard(CountLock());
    if (!m_target || m_target->m_refCount < 1)
        return {};
    ++m_target->m_refCount;
    return RCPtr<RCObject>::Adopt(const_cast<RCObject*>(m_target));
}

bool WkReference::IsAlive() const
{
    std::lock_guard<std::mutex> guard(CountLock());
    return m_target && m_target->m_refCount >= 1;
}
