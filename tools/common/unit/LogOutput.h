#pragma once

#include <Poco/Message.h>

#include <cstddef>
#include <deque>
#include <string>

namespace NuboSd {

/// Writes the library's log to standard error, one line per message with the time of day. Everything but
/// printable ASCII is escaped: messages contain names and bytes from the network.
void openLog(Poco::Message::Priority level);

/// Catches the errors that the library logs on this thread, as long as it exists; they are not written. One
/// at a time per thread.
class ErrorCatcher
{
public:
    enum class Others
    {
        Written,
        Dropped  ///< lines of other levels are not written either
    };

    explicit ErrorCatcher(Others others = Others::Written);
    ~ErrorCatcher();

    ErrorCatcher(const ErrorCatcher&) = delete;
    ErrorCatcher& operator=(const ErrorCatcher&) = delete;

    /// Keeps the first error. Returns true if the message must not be written.
    bool takes(const Poco::Message& message);

    /// The first error, without the word for its level; empty if there was none.
    const std::string& firstError() const { return m_firstError; }

private:
    const Others m_others;
    std::string m_firstError;
};

/// Holds back the log as long as it exists, if standard error is a terminal: lines would garble the screen.
/// The destructor writes them. One at a time.
class LogKeeper
{
public:
    LogKeeper();
    ~LogKeeper();

    LogKeeper(const LogKeeper&) = delete;
    LogKeeper& operator=(const LogKeeper&) = delete;

    /// The newest line held back; empty if there is none.
    std::string newest() const;

    /// Holds back a line, and drops the oldest when there are too many.
    void keep(const std::string& line);

private:
    std::deque<std::string> m_lines;
    std::size_t m_dropped = 0;
};

}  // namespace NuboSd
