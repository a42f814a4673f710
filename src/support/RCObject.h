#pragma once
// Intrusive reference counting shared by the logging framework and the support
// library. Every count of every object changes under one process-wide lock, so
// a weak reference can be promoted without racing the final release.
//
// An object whose count falls below 1 is finalised: its weak reference is cut
// first, then OnFinalRelease runs; when that returns false the object is
// deleted, when it returns true the object stays (a recycled object may be
// counted up from 0 again by its owner).
//
// Lock order: the reference-count lock is the innermost lock of the process.
// Nothing runs under it except the count change and OnReleasedTo.

#include <cstdint>
#include <mutex>

class WkReference;
template <typename T>
class RCPtr;

class RCObject {
public:
    RCObject() = default;
    // A copy is a new object: it starts with no references and no weak reference.
    RCObject(const RCObject&) noexcept {}
    RCObject& operator=(const RCObject&) noexcept { return *this; }
    virtual ~RCObject();

    void AddRef() const;
    // Drops one reference; finalises the object when none is left.
    void Release() const;
    int32_t GetRefCount() const;

    // The one weak reference of this object, created on first use through
    // CreateWeakReference.
    RCPtr<WkReference> GetWeakReference() const;

protected:
    // Called once the count has fallen below 1, without any lock held. True
    // keeps the object alive (it is then the object's own business).
    virtual bool OnFinalRelease() { return false; }
    // Makes the weak reference that GetWeakReference hands out.
    virtual WkReference* CreateWeakReference() const;
    // Called under the reference-count lock whenever a release leaves `count`
    // references (1 or more). It must not take any lock or touch a count; it
    // may signal a descriptor.
    virtual void OnReleasedTo(int32_t /*count*/) const {}

    // The process-wide reference-count lock.
    static std::mutex& CountLock();

private:
    friend class WkReference;

    mutable int32_t m_refCount = 0;       // guarded by CountLock()
    mutable WkReference* m_weak = nullptr; // guarded by CountLock(); holds one count of it
};
