#include "log/StdErrWriter.h"

#include "log/ConsoleText.h"

namespace tolv::log {

bool StdErrWriter::WriteMessage(const RCPtr<LogMessage>& message)
{
    WriteConsoleText(stderr, message->GetText(), message->GetLength());
    return true;
}

} // namespace tolv::log
