#pragma once
// The one process-wide logging lock, owned by the logging front end
// (LoggingMutex) and handled here as an LxMutex. It guards the logger
// manager's maps and default logger, every logger's writers, settings and
// flags, and the queue swap of every writer; the logging poll thread uses it
// as its own lock, so poll items and loggers share it. The front end holds it
// around every call it makes into the framework. It is recursive: code under
// it may log, and such nested calls are dropped by the entry points, not
// deadlocked.
//
// Lock order: logging lock -> message cache lock -> reference-count lock.
// Never wait for a poll item or stop the poll thread while holding it: the
// scheduler needs it to make progress.

#include "support/LxMutex.h"

namespace tolv::log {

LxMutex& LoggingLock();

} // namespace tolv::log
