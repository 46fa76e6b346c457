#include "FaultyLife.h"
#include "support/SystemFaults.h"

#include <cstdlib>
#include <iostream>
#include <ostream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

/// Leaks of Poco: a thread pool leaks memory when its first thread does not start, a reactor when memory for
/// a socket's handlers is short.
extern "C" const char* __lsan_default_suppressions()  // NOLINT(bugprone-reserved-identifier)
{
    return "leak:Poco::ThreadPool::createThread\nleak:Poco::Net::SocketReactor::getNotifier";
}

// Each system call of a unit fails once, at each place where it is made.
namespace Nubo::ServiceDiscovery::Testing {

namespace {

struct NamedCall
{
    const char* name;
    SystemCall call;
    friend void PrintTo(const NamedCall& row, std::ostream* stream) { *stream << row.name; }
};

struct NamedPhase
{
    const char* name;
    Phase phase;
    friend void PrintTo(const NamedPhase& row, std::ostream* stream) { *stream << row.name; }
};

struct SingleFaultTest : ::testing::TestWithParam<std::tuple<NamedCall, NamedPhase>>
{};

/// Number of places per kind at which a call fails, unless all are requested: a life takes up to half a
/// second.
constexpr std::size_t sample = 5;

std::size_t stepThrough(std::size_t places)
{
    return std::getenv("KEL_SD_ALL_FAULTS") ? 1 : (places + sample - 1) / sample;
}

}  // namespace

TEST_P(SingleFaultTest, UnitGoesOnOrSaysNoAndWorksAfterwards)
{
    const auto& [call, phase] = GetParam();
    FaultyLife life;

    const std::size_t places = life.live(phase.phase, {call.call, SystemFault::forEver});

    std::cout << places << " places" << std::endl;
    for (std::size_t place = 1; place <= places; place += stepThrough(places)) {
        SCOPED_TRACE("place " + std::to_string(place));
        life.live(phase.phase, {call.call, place});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, SingleFaultTest,
    ::testing::Combine(
        ::testing::Values(NamedCall{"Allocate", SystemCall::Allocate},
                          NamedCall{"Socket", SystemCall::Socket}, NamedCall{"Bind", SystemCall::Bind},
                          NamedCall{"SetOption", SystemCall::SetOption}, NamedCall{"Send", SystemCall::Send},
                          NamedCall{"Receive", SystemCall::Receive}, NamedCall{"Watch", SystemCall::Watch},
                          NamedCall{"Thread", SystemCall::Thread}, NamedCall{"Netlink", SystemCall::Netlink},
                          NamedCall{"List", SystemCall::List}, NamedCall{"Control", SystemCall::Control}),
        ::testing::Values(NamedPhase{"Start", Phase::Start}, NamedPhase{"Discovery", Phase::Discovery},
                          NamedPhase{"Flap", Phase::Flap}, NamedPhase{"Stop", Phase::Stop},
                          NamedPhase{"Destruction", Phase::Destruction})),
    [](const auto& row) { return std::string(std::get<0>(row.param).name) + std::get<1>(row.param).name; });

}  // namespace Nubo::ServiceDiscovery::Testing
