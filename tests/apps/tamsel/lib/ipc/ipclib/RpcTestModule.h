#pragma once
// What the tests see of the registration module (RpcTestModule.cpp), once the
// library has loaded it.

#include "apps/tamsel/lib/ipc/ipclib/ipclibConfig.h"

#include <condition_variable>
#include <mutex>
#include <vector>

struct TestModuleState {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint32_t> results;  // what the library's callback returned, call by call
    int unregisters = 0;
    bool reportRegistered = false;  // what IsRpcServerRegistered says while nothing is registered
};
