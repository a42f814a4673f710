#pragma once
// A drive-call table that records what the service asks for and answers from
// a script. Handles are real memfd descriptors of 4 KiB, so file queries and
// transfers on them work; device controls are answered by the script, as an
// 8 GiB fixed disk of 255 heads, 63 sectors a track and 512-byte sectors.

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

    // errno for every open; 0 lets opens succeed.
    int openErrno = 0;
    // Per control code, the errno of the next calls in turn (0: success); a code
    // with nothing queued succeeds.
    std::map<uint32_t, std::deque<int>> script;

    // "open <path>", "<CODE> <path>", "close <path>", in call order since the
    // last time they were taken.
    std::vector<std::string> TakeCalls();
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
