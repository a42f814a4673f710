#include "log/StdOutWriter.h"

#include "log/ConsoleText.h"

namespace tolv::log {

bool StdOutWriter::WriteMessage(const RCPtr<LogMessage>& message)
{
    WriteConsoleText(stdout, message->GetText(), message->GetLength());
    return true;
}

} // namespace tolv::log
