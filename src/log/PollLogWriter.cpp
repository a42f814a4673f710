#include "log/PollLogWriter.h"

#include "log/LogWriter.h"

namespace tolv::log {

PollLogWriter::PollLogWriter(LogWriter& writer) : LxPollItem("LogWriter", LogWriter::kPollIntervalMs), m_writer(writer)
{
}

bool PollLogWriter::Run(bool /*signalled*/)
{
    m_writer.PollDrain();
    return true;
}

} // namespace tolv::log
