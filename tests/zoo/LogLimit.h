#pragma once

#include <KELUtilLib/Logging.h>

#include <Poco/Message.h>

namespace Nubo::ServiceDiscovery::Testing {

/// Keeps lines of a lower priority from being made while it exists, for what would be slow with them.
class LogLimit
{
public:
    static constexpr int none = 0;

    /// A Poco::Message::Priority, or `none` for no line at all.
    explicit LogLimit(int lowest) { Logging::Log::Logger().setLevel(lowest); }
    ~LogLimit() { Logging::Log::Logger().setLevel(Poco::Message::PRIO_TRACE); }

    LogLimit(const LogLimit&) = delete;
    LogLimit& operator=(const LogLimit&) = delete;
};

}  // namespace Nubo::ServiceDiscovery::Testing
