#pragma once
// The weak side of an RCObject: a counted object that points at its target
// until the target is finalised. Promotion and the final release of the target
// both run under the reference-count lock, so a promoted pointer is never to a
// finalised object.

#include "support/RCObject.h"
#include "support/RCPtr.h"

class WkReference : public RCObject {
public:
    explicit WkReference(const RCObject* target) : m_target(target) {}

    // A new reference to the target, or null once the target is finalised.
    RCPtr<RCObject> Lock() const;
    bool IsAlive() const;

private:
    friend class RCObject;
    const RCObject* m_target; // guarded by CountLock(); cut when the target is finalised
};
