#pragma once
// Executable paths of this process and of other processes, as UTF-16 text
// for the peer check. Both return an empty string and log an ERROR line on
// any failure; neither throws.

#include <string>
#include <sys/types.h>

// The full path of the module (executable or shared object) that contains the
// address `module`, or of the executable itself when `module` is null.
std::u16string TOLVGetModuleFileName(const void* module);

// The full path of the executable image of the process `processId`. A path
// whose file was deleted since the process started ends in " (deleted)", as
// the kernel reports it, and so matches no path that exists.
std::u16string TOLVGetProcessImageName(pid_t processId);
