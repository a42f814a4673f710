#pragma once
// Where a worker started by this user writes its log, for a failure message:
// its own file when it can be found, else the folder.

#include <sys/types.h>

#include <string>

// The worker's private log folder: $TMPDIR/corvanta-UID/ ($TMPDIR only when
// absolute, else /tmp), as the worker picks it for this user.
std::string WorkerLogFolder();

// The newest log file of the worker with process id `pid` in that folder;
// the folder when there is none (or `pid` is not positive).
std::string WorkerLogLocation(pid_t pid);
