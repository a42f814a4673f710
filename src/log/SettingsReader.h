#pragma once
// Where a logger's settings come from. A value is "found" only when the
// source really holds it; callers keep their current setting otherwise.

#include "support/RCObject.h"

#include <cstdint>
#include <string>

namespace tolv::log {

class SettingsReader : public RCObject {
public:
    // No use in this program; every reader answers 0.
    virtual int32_t GetKind() const { return 0; }
    // The function-name field of the change messages.
    virtual std::string GetName() const = 0;
    virtual bool ReadString(const std::string& name, std::string& value) = 0;
    virtual bool ReadUInt32(const std::string& name, uint32_t& value) = 0;
    virtual bool ReadBool(const std::string& name, bool& value) = 0;
    // Where a value of `name` is read from.
    virtual std::string GetLocation(const std::string& name) const = 0;
    // Ends the reader's watching; called without the logging lock before the
    // logger goes.
    virtual void Stop() {}
};

} // namespace tolv::log
