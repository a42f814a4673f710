#pragma once

namespace tolv::worker {

// Brings up what the worker needs before anything else, and takes it down on
// every exit path: the logger (file writer in the private temporary folder,
// settings from the worker's settings key) and the poll module.

class EnvSetup {
public:
    EnvSetup() = default;
    // Takes down the poll module and every logger, also after a failed Init.
    ~EnvSetup();
    EnvSetup(const EnvSetup&) = delete;
    EnvSetup& operator=(const EnvSetup&) = delete;

    // False when the logger could not be made, pointed at its folder or
    // started; nothing is logged then.
    bool Init();
};

} // namespace tolv::worker
