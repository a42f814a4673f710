#pragma once
// A drive-call table that records what the service asks for and answers from
// a script. Handles are real memfd descriptors of a set size, so file queries
// and transfers on them work; device controls are answered by the script.

#include "worker/DriveCalls.h"

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

using namespace tolv::worker;

class FakeDriveCalls {
public:
    FakeDriveCalls();   // puts itself in force
    ~FakeDriveCalls();  // restores the previous table

    // Size of the descriptor that the next opens return.
    uint64_t fileSize = 4096;
    // errno for every open; 0 lets opens succeed.
    int openErrno = 0;
    // Per control code, the errno of the next calls in turn (0: success); a code
    // with nothing queued succeeds.
    std::map<uint32_t, std::deque<int>> script;
    uint64_t deviceLength = 8ull << 30;
    DISK_GEOMETRY geometry{1044, MEDIA_TYPE_FIXED, 255, 63, 512};

    // "open <path>", "<CODE> <path>", "close <path>", in call order.
    std::vector<std::string> Calls();
    void ClearCalls();
    size_t OpenHandles();

private:
    static int Create(const std::u16string& path);
    static bool Control(int handle, uint32_t code, void* output, uint32_t outputSize);
    static bool Close(int handle);

    std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::map<int, std::string> m_handles;  // open descriptor -> path
    const DriveCallTable* m_previous;
    DriveCallTable m_table;
};
