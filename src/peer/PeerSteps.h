#pragma once
// The steps of the peer's command line, run in order on one drive session.
// Results (query lines or JSON) go to standard output unless the drive's
// bytes do; everything else a person should read goes to standard error.

#include "peer/DriveSession.h"
#include "peer/LocalDrivePath.h"
#include "peer/PeerCommandLine.h"
#include "peer/ProgressMeter.h"

#include <sys/types.h>

#include <cstdio>
#include <map>
#include <string>

class InterruptWatch;

class PeerSteps {
public:
    // `workerPid`: the worker on the other end (-1 when not known), whose
    // descriptors show whether it holds a device exclusively.
    PeerSteps(DriveSession& session, const PeerOptions& options, const InterruptWatch& interrupt, pid_t workerPid);

    // kPeerExitOk, or the exit code the run ends with.
    int Run(const PeerStep& step);
    // Releases every drive queried and not released: when the steps stop early.
    void ReleaseAll();

private:
    static constexpr uint8_t kCopyLetter = 'Z';

    // What a query found out about a block device on this side.
    struct Drive {
        LocalDrivePath path;
        std::vector<std::string> stillMountedOn;  // mounts the worker could not take down
        bool heldExclusively = true;              // the worker's volume lock, as far as we can see
    };

    int Query(const PeerStep& step, tolv::worker::DR_QUERY_DISK_RSP* out);
    int Read(const PeerStep& step);
    int Write(const PeerStep& step);
    int Release(uint8_t letter);
    int CopyOut(const PeerStep& step);
    int CopyIn(const PeerStep& step);

    // The exit code of a failed step, with `what` on standard error; an
    // interrupt's code when one came (and the failure was its doing).
    int Fail(const std::string& what);
    // Stops a write to a device still mounted, unless --force.
    int RefuseWhileMounted(uint8_t letter, const char* step);
    // Takes away what a step wrote into a regular file of its own, unless
    // the user keeps partial output.
    void RemovePartial(const std::string& file, bool ownRegularFile);
    ProgressMeter Meter(const char* what) const;
    bool interrupted() const;

    DriveSession& m_session;
    const PeerOptions& m_options;
    const InterruptWatch& m_interrupt;
    pid_t m_workerPid;
    std::FILE* m_results;
    std::map<uint8_t, Drive> m_drives;
};
