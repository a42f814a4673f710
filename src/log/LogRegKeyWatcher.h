#pragma once
// The settings key's watcher: after its values are reloaded it applies every
// setting of its reader to the logger again, under the logging lock.

#include "support/LxRegKeyWatcher.h"

namespace tolv::log {

class RegSettingsReader;

class LogRegKeyWatcher final : public LxRegKeyWatcher {
public:
    LogRegKeyWatcher(RCPtr<LxRegKey> key, RegSettingsReader& reader);
    bool OnKeyChanged() override;

private:
    // The reader stops this watcher before it goes.
    RegSettingsReader& m_reader;
};

} // namespace tolv::log
