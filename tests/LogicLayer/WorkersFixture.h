#pragma once

#include "StateMachineFixture.h"

#include <algorithm>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace Nubo::ServiceDiscovery::Testing {

/// The records at the moment of their announcement: "Media ANNOUNCED REPETITION_PHASE #1 run 2".
inline std::vector<std::string> sendings(const std::vector<RecordingHub::Sent>& sent)
{
    std::vector<std::string> result;
    for (const RecordingHub::Sent& one : sent)
        result.push_back(summary(new SDService(one.record)) + " run " +
                         std::to_string(one.record.getRepetitionRun()));
    return result;
}

inline std::vector<std::string> names(const std::vector<RecordingHub::Sent>& sent)
{
    std::vector<std::string> result;
    for (const RecordingHub::Sent& one : sent)
        result.push_back(one.record.getNuboDescription().getName());
    return result;
}

constexpr auto stoppedMedia =
    "Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
    "stopped, due to shutdown of ServiceRegistry.";

/// A state machine whose workers announce due records when the test ends their intervals.
struct WorkersFixture : RunningStateMachineFixture
{
    /// Shortest and longest time, in microseconds, after which the record scheduled by `action` is due.
    using DueTime = std::pair<Poco::Clock::ClockDiff, Poco::Clock::ClockDiff>;

    std::vector<std::string> sent() const { return sendings(engine.hub.sent()); }

    /// `action` schedules a record ahead of all others.
    template <class Action>
    DueTime dueAfter(Action action)
    {
        const Poco::Clock before = SDClock::now();
        action();
        const Poco::Clock after = SDClock::now();
        const Poco::Clock due = machine.m_aperiodicWorkload.begin()->first;
        return {due - after, due - before};
    }
};

/// `delay`, in milliseconds, is one of the possible due times.
MATCHER_P(Holds, delay, "")
{
    return arg.first <= delay * millisecond && arg.second >= delay * millisecond;
}

/// A kind of record that does not belong into a workload, and its name in the log.
struct UnexpectedRecord
{
    Type::Type_t type;
    State::State_t state;
    const char* text;

    friend void PrintTo(const UnexpectedRecord& row, std::ostream* stream) { *stream << row.text; }
};

inline std::string unexpectedRecordName(const ::testing::TestParamInfo<UnexpectedRecord>& info)
{
    std::string text = info.param.text;
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

}  // namespace Nubo::ServiceDiscovery::Testing
