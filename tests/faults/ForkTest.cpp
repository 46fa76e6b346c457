#include "ProcessFixture.h"
#include "support/LogCatcher.h"
#include "support/Process.h"
#include "support/SystemFaults.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Message.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

// A facade in a process that forks.
namespace Nubo::ServiceDiscovery::Testing {

namespace {

using ForkTest = ProcessFixture;

/// A subscriber that does nothing.
struct Idle
{
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload&) {}
};

/// Runs the function in a forked child. Returns whether the child ends by itself, with the code for success.
template <class Action>
bool childDoes(Action action)
{
    // A running thread may hold one of the sanitizer's locks, which would stay locked forever in the child.
    eventually(areOtherThreadsAsleep);
    const pid_t child = ::fork();
    if (child == 0)
        action();
    int status = 0;
    if (eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; }))
        return WIFEXITED(status) && WEXITSTATUS(status) == works;
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return false;
}

}  // namespace

TEST_F(ForkTest, ForkedChildThatExitsDoesNotDisturbTheParent)
{
    const auto scenario = [&] {
        Unit& unit = unitOfTheProcess();
        if (!unit.startup() || !unit.discovery.addService(describe("Own", "fd00::1", 8080, "own")) ||
            !listener.hears(offersUntilSettled))
            ::_exit(isWrong);

        const bool hasEnded = childDoes([] { std::exit(works); });

        if (!hasEnded || stopOffers() != 0)
            ::_exit(isWrong);
        endAfterWork(unit);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

TEST_F(ForkTest, ForkedChildIsRefusedEverythingAndMayDestroyTheFacade)
{
    const auto scenario = [&] {
        auto* const unit = new Unit;
        if (!unit->startup() || !unit->discovery.addService(describe("Own", "fd00::1", 8080, "own")))
            ::_exit(isWrong);

        const bool hasEnded = childDoes([&] {
            ServiceDiscovery& discovery = unit->discovery;
            const bool isRefused = !discovery.running() && !unit->startup() && !discovery.shutdown() &&
                                   !discovery.addService(describe("Other")) &&
                                   !discovery.findService(describe("Other")) &&
                                   !discovery.removeService("own") && discovery.getServices().empty();
            delete unit;
            ::_exit(isRefused ? works : isWrong);
        });

        if (!hasEnded)
            ::_exit(isWrong);
        endAfterWork(*unit);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

/// A thread of the parent may hold the event's lock, which would stay locked forever in a child.
TEST_F(ForkTest, ForkedChildLeavesTheEventsSubscribersAsTheyWere)
{
    const auto scenario = [&] {
        const PlatformScope platform;
        ServiceDiscovery left;
        ServiceDiscovery joined;
        Idle idle;
        left.ServiceListChanged += Poco::delegate(&idle, &Idle::onServiceListChanged);
        const bool hasEnded = childDoes([&] {
            left.ServiceListChanged -= Poco::delegate(&idle, &Idle::onServiceListChanged);
            left.ServiceListChanged.clear();
            joined.ServiceListChanged += Poco::delegate(&idle, &Idle::onServiceListChanged);
            const bool isAsItWas = !left.ServiceListChanged.empty() && joined.ServiceListChanged.empty();
            ::_exit(isAsItWas ? works : isWrong);
        });
        ::_exit(hasEnded ? works : isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

TEST_F(ForkTest, ForkedChildThatLivesOnDoesNotHoldThePort)
{
    const auto scenario = [&] {
        Unit& unit = unitOfTheProcess();
        if (!unit.startup())
            ::_exit(isWrong);
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);
            ::pause();
            ::_exit(works);
        }

        const bool isStartedAgain = unit.discovery.shutdown() && unit.startup();

        const bool isAlive = ::waitpid(child, nullptr, WNOHANG) == 0;
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        if (!isStartedAgain || !isAlive)
            ::_exit(isWrong);
        endAfterWork(unit);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

TEST_F(ForkTest, ForkedChildKeepsADescriptorThatHasTheNumberOfASocketJustClosed)
{
    const auto scenario = [&] {
        Unit& unit = unitOfTheProcess();
        if (!unit.startup())
            ::_exit(isWrong);
        const int number = socketAt(discoveryPort);
        bool isKept = false;
        const AfterClose reuse(number, [&] {
            isKept = ::fcntl(STDERR_FILENO, F_DUPFD, number) == number &&
                     childDoes([=] { ::_exit(::fcntl(number, F_GETFD) >= 0 ? works : isWrong); });
        });

        const bool isStopped = unit.discovery.shutdown();

        ::_exit(isStopped && isKept ? works : isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

namespace {

/// What makes the library run code of the process, which forks.
struct ForkingPlace
{
    const char* name;
    const char* line;  ///< of the log, in which it forks; null: in an event
    enum
    {
        Offer,
        Junk,
        Restart
    } provokedBy;
    bool throwsInChild = false;

    friend void PrintTo(const ForkingPlace& place, std::ostream* stream) { *stream << place.name; }
};

struct ForkingPlaceTest : ProcessFixture, ::testing::WithParamInterface<ForkingPlace>
{};

}  // namespace

TEST_P(ForkingPlaceTest, ChildThatReturnsEndsAtOnceAndTheParentGoesOn)
{
    static std::atomic<pid_t> child{0};
    static bool isChild = false;
    const auto scenario = [&] {
        LogCatcher log;
        Unit& unit = unitOfTheProcess();
        const auto forkOnce = [] {
            pid_t none = 0;
            if (!child.compare_exchange_strong(none, -1))
                return;
            const pid_t forked = ::fork();
            if (forked == 0) {
                ::alarm(20);
                isChild = true;
            }
            else
                child = forked;
        };
        const char* const line = GetParam().line;
        log.onLine([&](const std::string& text) {
            if (isChild)
                ::_exit(isWrong);  // the child continues the parent's work
            if (line && text.find(line) != std::string::npos)
                forkOnce();
        });
        unit.registry.onEvent = [&](auto&) {
            if (!line)
                forkOnce();
            if (isChild && GetParam().throwsInChild)
                throw std::runtime_error("in the child");
        };
        if (!unit.startup())
            ::_exit(isWrong);
        if (GetParam().throwsInChild)
            Logging::Log::Logger().setLevel(Poco::Message::PRIO_FATAL);  // what is caught is not logged
        if (GetParam().provokedBy == ForkingPlace::Offer)
            speaker.send(Packets::offer("Short", "00 00 01"));
        else if (GetParam().provokedBy == ForkingPlace::Junk)
            speaker.send("no packet, but as long as one");
        else if (!unit.discovery.shutdown() || !unit.startup())
            ::_exit(isWrong);
        const bool isForked = eventually([] { return child > 0; });
        int status = 0;
        const bool isEnded = eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; });
        if (!isEnded)
            ::kill(child, SIGKILL);
        if (!isForked || !isEnded || !WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS)
            ::_exit(isWrong);
        endAfterWork(unit);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

INSTANTIATE_TEST_SUITE_P(
    In, ForkingPlaceTest,
    ::testing::Values(ForkingPlace{"Event", nullptr, ForkingPlace::Offer},
                      ForkingPlace{"EventThatThrows", nullptr, ForkingPlace::Offer, true},
                      ForkingPlace{"Expiry", "TTL of service timed out", ForkingPlace::Offer},
                      ForkingPlace{"Interval", "AperiodicWorker::onInterval - 0 services",
                                   ForkingPlace::Junk},
                      ForkingPlace{"RequestHandler", "SDRequestHandler - ", ForkingPlace::Junk},
                      ForkingPlace{"Receiver", "MulticastReceiver onSocketReadable", ForkingPlace::Junk},
                      ForkingPlace{"InterfaceInUse", "joining IPv6 Multicast Group", ForkingPlace::Restart},
                      ForkingPlace{"Shutdown", "SDCommunicationHub::stop", ForkingPlace::Restart}),
    ::testing::PrintToStringParamName());

}  // namespace Nubo::ServiceDiscovery::Testing
