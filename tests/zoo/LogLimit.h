#pragma once

#include <KELUtilLib/Logging.h>

#include <Poco/Message.h>

namespace Nubo::ServiceDiscovery::Testing {

/// Suppresses log lines of lower priority while it exists, for tests that would otherwise be slow.
class LogLimit
{
public:
    static constexpr int none = 0;

    /// `lowest` is a Poco::Message::Priority, or `none` to suppress all lines.
    explicit LogLimit(int lowest) { Logging::Log::Logger().setLevel(lowest); }
    ~LogLimit() { Logging::Log::Logger().setLevel(Poco::Message::PRIO_TRACE); }

    LogLimit(const LogLimit&) = delete;
    LogLimit& operator=(const LogLimit&) = delete;
};

}  // namespace Nubo::ServiceDiscovery::Testing
