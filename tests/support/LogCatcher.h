#pragma once

#include <Poco/Message.h>

#include <functional>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// Catches all lines that the library logs while it exists, on every thread and at every level. Only one may
/// exist at a time.
///
///     LogCatcher log;
///     …
///     EXPECT_THAT(log.errors(), ElementsAre("Error: …"));
///
/// A line whose level word contradicts its level fails the test.
class LogCatcher
{
public:
    LogCatcher();
    ~LogCatcher();

    LogCatcher(const LogCatcher&) = delete;
    LogCatcher& operator=(const LogCatcher&) = delete;

    /// Whole lines in the order of logging.
    std::vector<std::string> lines() const;
    std::vector<std::string> lines(Poco::Message::Priority level) const;
    std::vector<std::string> errors() const { return lines(Poco::Message::PRIO_ERROR); }
    std::vector<std::string> warnings() const { return lines(Poco::Message::PRIO_WARNING); }
    std::vector<std::string> notices() const { return lines(Poco::Message::PRIO_NOTICE); }
    std::vector<std::string> debugs() const { return lines(Poco::Message::PRIO_DEBUG); }
    std::vector<std::string> traces() const { return lines(Poco::Message::PRIO_TRACE); }
    /// Errors and warnings.
    std::vector<std::string> complaints() const;

    bool has(const std::string& line) const;
    std::size_t count(const std::string& line) const;

    /// The messages as they reached the logger.
    std::vector<Poco::Message> messages() const;

    /// Forgets all lines caught so far.
    void clear();

    /// Calls the function after every further line, on the thread that logs it, until the object ends.
    void onLine(std::function<void(const std::string&)> call);
};

}  // namespace Nubo::ServiceDiscovery::Testing
