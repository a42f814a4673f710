#pragma once
// A weak pointer to an RCObject of type T: it keeps the object's weak
// reference, never the object.

#include "support/RCPtr.h"
#include "support/WkReference.h"

template <typename T>
class WkPtr {
public:
    WkPtr() = default;
    WkPtr(std::nullptr_t) {}
    explicit WkPtr(const T* object)
    {
        if (object)
            m_ref = object->GetWeakReference();
    }
    WkPtr(const RCPtr<T>& object) : WkPtr(object.get()) {}

    // A counted pointer to the object, or null once it is finalised.
    RCPtr<T> Lock() const
    {
        if (!m_ref)
            return {};
        RCPtr<RCObject> strong = m_ref->Lock();
        // The reference was taken on the object itself; hand it over as a T.
        return RCPtr<T>::Adopt(static_cast<T*>(const_cast<RCObject*>(strong.Detach())));
    }
    bool IsAlive() const { return m_ref && m_ref->IsAlive(); }
    void reset() { m_ref.reset(); }

private:
    RCPtr<WkReference> m_ref;
};
