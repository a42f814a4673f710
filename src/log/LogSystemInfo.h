#pragma once
// The system texts of the start-up block and of log file names, in their Linux
// form: the audit session, the OS description, the module and image paths and
// the time zone.

#include <cstdint>
#include <string>

namespace logsys {

// The audit session of the process (/proc/self/sessionid); 0 where unset, as
// for a service.
uint32_t SessionId();
// PRETTY_NAME of /etc/os-release, the kernel release and ", 64-bit".
std::string OsVersionText();
// The full path of the module that holds the logging code; empty when unknown.
std::string LoggingModulePath();
// The executable of this process (/proc/self/exe); empty when unknown.
std::string ProcessImagePath();
// The project's version and the file time of `path`.
std::string ModuleVersionText(const std::string& path);
// "NAME (UTC +H)" or "NAME (UTC +H:MM)" for the local zone now.
std::string TimeZoneText();

} // namespace logsys
