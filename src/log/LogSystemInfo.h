#pragma once
// The start-up block's own texts: the module and image paths and the time
// zone. Session, OS and version texts are the process utilities'.

#include <cstdint>
#include <string>

namespace tolv::log {

namespace logsys {

// The full path of the module that holds the logging code; empty when unknown.
std::string LoggingModulePath();
// The executable of this process (/proc/self/exe); empty when unknown.
std::string ProcessImagePath();
// "NAME (UTC +H)" or "NAME (UTC +H:MM)" for the local zone now.
std::string TimeZoneText();

} // namespace logsys

} // namespace tolv::log
