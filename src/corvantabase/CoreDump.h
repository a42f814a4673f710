#pragma once
// The process's crash filter.

// Installs handlers for the fatal signals (SIGSEGV, SIGBUS, SIGFPE, SIGILL,
// SIGABRT, SIGTRAP, SIGSYS). A handler writes one header line naming the
// signal, the fault address (or the sending process, for a signal sent by a
// process), this process and the thread, then a backtrace, to
// standard error, using only calls that are safe in a signal handler; then it
// restores the default action and raises the signal again, so the process
// still ends by that signal (with a core dump where the system keeps one).
// The calling thread also gets an alternate signal stack, so a stack overflow
// on it is reported too. Calling it again changes nothing.
void CoreDump_SetUnhandledExceptionFilter();
