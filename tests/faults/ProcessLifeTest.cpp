#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/LinkedFixture.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Platform.h"
#include "support/Process.h"
#include "support/Registry.h"
#include "support/SystemFaults.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Message.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

// A facade in a process that forks, starts programs, ends at an odd moment, was started without standard
// streams, or has hundreds of interfaces.
namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::milliseconds;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

/// Exit codes of a test's process.
enum Outcome
{
    works = 10,
    isWrong
};

constexpr std::size_t offersUntilSettled = 5;  // four offers at the beginning, then one per second

struct Unit
{
    Unit() { platform.dispatcher().addInterface("eth0", "fd00::1"); }

    bool startup() { return discovery.startup(Poco::Net::IPAddress("fd00::1")); }

    PlatformScope platform;
    ServiceDiscovery discovery;
    Registry registry{discovery};
};

/// A subscriber that does nothing.
struct Idle
{
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload&) {}
};

/// Another unit sends and listens on eth0. Most tests make the unit in a separate process.
struct ProcessLifeTest : LinkedFixture
{
    /// Ends the process at once. The exit code says whether the unit announces and discovers.
    [[noreturn]] void endAfterWork(Unit& unit)
    {
        listener.clear();
        const bool isAdded = unit.discovery.addService(describe("Last", "fd00::1", 8089, "last"));
        const bool isHeard = listener.hears(1);
        const bool isHearing = eventually([&] {
            speaker.send(Packets::offer("Far"));
            return eventually([&] { return unit.registry.discovered("Far") != 0; }, milliseconds(20));
        });
        ::_exit(isAdded && isHeard && isHearing && unit.discovery.running() ? works : isWrong);
    }

    /// Number of packets heard with a time-to-live of 0, if each datagram has one packet.
    std::size_t stopOffers()
    {
        const auto& heard = listener.datagrams();
        return static_cast<std::size_t>(std::count_if(heard.begin(), heard.end(), [](const auto& datagram) {
            constexpr std::size_t atTTL = 16 + 8 + 9;
            return datagram.bytes.substr(atTTL, 3) == "00 00 00"_bytes;
        }));
    }

    Speaker speaker{network.there, "eth0", "fd00::2"};
    Listener listener{network.there, "eth0"};
};

/// Has static storage, so that it is destroyed when the process ends.
Unit& unitOfTheProcess()
{
    static Unit unit;
    return unit;
}

std::vector<int> openDescriptorNumbers()
{
    std::vector<int> result;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        result.push_back(std::stoi(entry.path().filename()));
    // Without the one that reads the folder.
    result.erase(std::remove_if(result.begin(), result.end(),
                                [](int descriptor) { return ::fcntl(descriptor, F_GETFD) < 0; }),
                 result.end());
    return result;
}

/// The descriptors that have been opened since.
std::vector<int> openedSince(const std::vector<int>& before)
{
    std::vector<int> result;
    for (const int descriptor : openDescriptorNumbers()) {
        if (std::count(before.begin(), before.end(), descriptor) == 0)
            result.push_back(descriptor);
    }
    return result;
}

/// A running thread may hold one of the sanitizer's locks, which would stay locked forever in a forked child.
bool areOtherThreadsAsleep()
{
    const std::string own = std::to_string(::getpid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string number;
        std::string name;
        std::string state;
        std::ifstream(task.path() / "stat") >> number >> name >> state;
        if (number != own && state != "S")
            return false;
    }
    return true;
}

/// Runs the function in a forked child. Returns whether the child ends by itself, with the code for success.
template <class Action>
bool childDoes(Action action)
{
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

TEST_F(ProcessLifeTest, ForkedChildThatExitsDoesNotDisturbTheParent)
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

TEST_F(ProcessLifeTest, ForkedChildIsRefusedEverythingAndMayDestroyTheFacade)
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
TEST_F(ProcessLifeTest, ForkedChildLeavesTheEventsSubscribersAsTheyWere)
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

TEST_F(ProcessLifeTest, ForkedChildThatLivesOnDoesNotHoldThePort)
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

TEST_F(ProcessLifeTest, ForkedChildKeepsADescriptorThatHasTheNumberOfASocketJustClosed)
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

struct ForkingPlaceTest : ProcessLifeTest, ::testing::WithParamInterface<ForkingPlace>
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

TEST_F(ProcessLifeTest, StartedProgramInheritsNoDescriptor)
{
    const std::vector<int> before = openDescriptorNumbers();
    Unit unit;
    ASSERT_TRUE(unit.startup());

    const std::vector<int> opened = openedSince(before);

    EXPECT_THAT(opened, Not(IsEmpty()));
    for (const int descriptor : opened) {
        EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0)
            << std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
    }
}

TEST_F(ProcessLifeTest, NoDescriptorBecomesAStandardStream)
{
    const auto scenario = [&] {
        for (int stream = 0; stream <= 2; ++stream)
            ::close(stream);
        const std::vector<int> before = openDescriptorNumbers();
        Unit unit;
        if (!unit.startup())
            ::_exit(isWrong);
        const std::vector<int> opened = openedSince(before);
        if (opened.empty() || *std::min_element(opened.begin(), opened.end()) <= 2)
            ::_exit(isWrong);
        endAfterWork(unit);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

TEST_F(ProcessLifeTest, SubscriberMayEndTheProcessAndTheServicesAreWithdrawn)
{
    const auto scenario = [&] {
        Unit& unit = unitOfTheProcess();
        unit.registry.onEvent = [](auto&) { std::exit(works); };
        if (!unit.startup() || !unit.discovery.addService(describe("Own", "fd00::1", 8080, "own")) ||
            !listener.hears(offersUntilSettled))
            ::_exit(isWrong);
        speaker.send(Packets::offer("Far"));
        eventually([] { return false; });
        ::_exit(isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");

    EXPECT_TRUE(eventually([&] { return stopOffers() == 1; }));
}

namespace {

/// A line that one of the engine's threads logs, and how to provoke it.
struct LastLine
{
    const char* name;
    const char* text;
    std::function<void(NetworkPair&, Unit&, Speaker&)> provoke;

    friend void PrintTo(const LastLine& line, std::ostream* stream) { *stream << line.name; }
};

struct LastLineTest : ProcessLifeTest, ::testing::WithParamInterface<LastLine>
{};

}  // namespace

TEST_P(LastLineTest, MayEndTheProcessAndTheServicesAreWithdrawn)
{
    const auto scenario = [&] {
        LogCatcher log;
        static const auto& last =
            *new LastLine(GetParam());  // used by threads that live longer than the test
        Unit& unit = unitOfTheProcess();
        if (!unit.startup() || !unit.discovery.addService(describe("Own", "fd00::1", 8080, "own")) ||
            !listener.hears(offersUntilSettled))
            ::_exit(isWrong);
        std::atomic<bool> isEnding{false};
        log.onLine([&](const std::string& line) {
            if (line.find(last.text) != std::string::npos && !isEnding.exchange(true))
                std::exit(works);
        });
        last.provoke(network, unit, speaker);
        eventually([] { return false; });
        ::_exit(isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");

    EXPECT_TRUE(eventually([&] { return stopOffers() == 1; }));
}

INSTANTIATE_TEST_SUITE_P(
    Of, LastLineTest,
    ::testing::Values(LastLine{"RequestHandler", "SDRequestHandler - ",
                               [](NetworkPair&, Unit&, Speaker& speaker) {
                                   speaker.send("no packet, but as long as one");
                               }},
                      LastLine{"Receiver", "MulticastReceiver onSocketReadable",
                               [](NetworkPair&, Unit&, Speaker& speaker) { speaker.send("any"); }},
                      LastLine{"Platform", "not an appropriate IP",
                               [](NetworkPair&, Unit& unit, Speaker&) {
                                   unit.platform.dispatcher().addInterface("eth0", "nonsense");
                               }},
                      LastLine{"Retry", "joining IPv6 Multicast Group for Interface \"eth1\"",
                               [](NetworkPair& network, Unit& unit, Speaker&) {
                                   unit.platform.dispatcher().addInterface("eth1", "fd01::1");
                                   network.link("eth1", "fd01::1", "fd01::2");
                               }},
                      LastLine{"Caller", "SD Announcement of Service",
                               [](NetworkPair&, Unit& unit, Speaker&) {
                                   unit.discovery.addService(describe("Other"));
                               }}),
    ::testing::PrintToStringParamName());

/// A platform may end its thread when the process ends, and wait for the report that it is making.
TEST_F(ProcessLifeTest, ProcessMayEndInALineAboutAnInterfaceWhileAnotherIsReported)
{
    static std::atomic<bool> isEnding{false};
    static std::thread platform;
    const auto scenario = [&] {
        ::alarm(20);
        // Destroyed in this order: the facade, the platform's thread, the dispatcher.
        static PlatformScope scope;
        std::atexit([] { platform.join(); });
        static ServiceDiscovery discovery;
        LogCatcher log;
        auto& dispatcher = scope.dispatcher();
        dispatcher.addInterface("eth1", "fd01::1");  // only present at the start
        network.link("eth1", "fd01::1", "fd01::2");
        platform = std::thread([&dispatcher] {
            eventually([] { return isEnding.load(); });
            dispatcher.addInterface("eth2", "fd02::1");
        });
        log.onLine([](const std::string& line) {
            if (line.find("joining IPv6 Multicast Group") != std::string::npos && !isEnding.exchange(true)) {
                std::this_thread::sleep_for(milliseconds(200));  // by then, the other report waits
                std::exit(works);
            }
        });
        discovery.startup(Poco::Net::IPAddress("fd00::1"));
        ::_exit(isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

/// The stop waits for the thread that ends the process, which waits for the stop.
TEST_F(ProcessLifeTest, ProcessMayEndInALineAboutAnInterfaceWhileAnotherThreadStops)
{
    const auto scenario = [&] {
        ::alarm(20);
        // Once the facade is destroyed: ThreadSanitizer would miss that somebody joins the threads.
        std::atexit([] { ::raise(SIGKILL); });
        LogCatcher log;
        Unit& unit = unitOfTheProcess();
        static std::atomic<bool> isEnding{false};
        static std::atomic<bool> isStopping{false};
        log.onLine([&](const std::string& line) {
            if (line.find("SDCommunicationHub::stop") != std::string::npos)
                isStopping = true;
            if (line.find("joining IPv6 Multicast Group for Interface \"eth1\"") == std::string::npos ||
                isEnding.exchange(true))
                return;
            static std::thread stopping([&] { unit.discovery.shutdown(); });
            stopping.detach();
            eventually([] { return isStopping.load(); });
            std::this_thread::sleep_for(milliseconds(200));  // it waits by then
            std::exit(isWrong);
        });
        network.link("eth1", "fd01::1", "fd01::2");
        if (!unit.startup())
            ::_exit(isWrong);
        unit.platform.dispatcher().addInterface("eth1", "fd01::1");
        ::_exit(isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::KilledBySignal(SIGKILL), "");
}

/// The subscriber waits for the thread that ends the process, which waits for the event.
TEST_F(ProcessLifeTest, ProcessMayEndInALineAboutAnInterfaceWhileASubscriberReportsAnother)
{
    static std::atomic<bool> isEnding{false};
    static std::atomic<bool> isReporting{false};
    const auto scenario = [&] {
        ::alarm(20);
        // Once the facade is destroyed: ThreadSanitizer would miss that somebody joins the threads.
        std::atexit([] { ::raise(SIGKILL); });
        LogCatcher log;
        Unit& unit = unitOfTheProcess();
        unit.registry.onEvent = [&](auto&) {
            isReporting = true;
            unit.platform.dispatcher().addInterface("eth2", "fd02::1");
        };
        log.onLine([&](const std::string& line) {
            if (line.find("joining IPv6 Multicast Group for Interface \"eth1\"") == std::string::npos ||
                isEnding.exchange(true))
                return;
            speaker.send(Packets::offer("Far"));
            eventually([] { return isReporting.load(); });
            std::this_thread::sleep_for(milliseconds(200));  // the subscriber waits by then
            std::exit(isWrong);
        });
        if (!unit.startup())
            ::_exit(isWrong);
        unit.platform.dispatcher().addInterface("eth1", "fd01::1");
        network.link("eth1", "fd01::1", "fd01::2");
        eventually([] { return false; });
        ::_exit(isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::KilledBySignal(SIGKILL), "");
}

/// Others may be at work when a thread ends the process. They stop after what they are at.
TEST_F(ProcessLifeTest, WhatComesInAfterTheFacadeIsDestroyedIsNotHandled)
{
    static std::atomic<int> received{0};
    static std::atomic<int> handled{0};
    static std::atomic<bool> isDestroyed{false};
    static Speaker& neighbour = speaker;
    const auto scenario = [&] {
        std::atexit([] {
            const int receivedBefore = received;
            isDestroyed = true;  // the handler goes on
            neighbour.send("no packet, but as long as one");
            const bool isSilent = keeps([&] { return received == receivedBefore; }, milliseconds(200));
            if (isSilent && handled == 1)
                ::raise(SIGKILL);  // upon an exit, ThreadSanitizer reports that nobody joins the threads
            ::_exit(isWrong);
        });
        LogCatcher log;
        Unit& unit = unitOfTheProcess();
        log.onLine([](const std::string& line) {
            received += line == "Trace: MulticastReceiver onSocketReadable" ? 1 : 0;
            if (line.find("SDRequestHandler - ") != std::string::npos) {
                ++handled;
                eventually([] { return isDestroyed.load(); });
            }
            if (line.find("not an appropriate IP") != std::string::npos)
                std::exit(isWrong);
        });
        if (!unit.startup())
            ::_exit(isWrong);
        for (int datagram = 1; datagram <= 3; ++datagram) {
            speaker.send("no packet, but as long as one");
            if (!eventually([&] { return received >= datagram && handled == 1; }))
                ::_exit(isWrong);
        }
        unit.platform.dispatcher().addInterface("eth0", "nonsense");
    };

    EXPECT_EXIT(scenario(), ::testing::KilledBySignal(SIGKILL), "");
}

TEST(ManyInterfacesTest, TwoHundredAndFortyAreServedInAThirdOfASecond)
{
    constexpr int interfaces = 240;
    using Clock = std::chrono::steady_clock;
    const NetworkPair network;
    shell("for i in $(seq 1 2 " + std::to_string(interfaces) +
          "); do echo link add d$i type veth peer name d$((i + 1)); done | ip -n here -batch -");
    shell("for i in $(seq " + std::to_string(interfaces) +
          "); do echo link set d$i up; echo address add fd00:$i::1/64 dev d$i; done | ip -n here -batch -");
    PlatformScope platform;
    for (int i = 1; i <= interfaces; ++i)
        platform.dispatcher().addInterface("d" + std::to_string(i), "fd00:" + std::to_string(i) + "::1");

    const auto begin = Clock::now();
    ServiceDiscovery discovery;
    const auto made = Clock::now();
    EXPECT_TRUE(discovery.startup(Poco::Net::IPAddress("fd00:1::1")));
    const auto started = Clock::now();
    EXPECT_EQ(joinedInterfaces().size(), static_cast<std::size_t>(interfaces));
    const auto toStop = Clock::now();
    EXPECT_TRUE(discovery.shutdown());
    const auto stopped = Clock::now();

    const auto inMilliseconds = [](Clock::duration duration) {
        return std::chrono::duration_cast<milliseconds>(duration).count();
    };
    std::cout << "made in " << inMilliseconds(made - begin) << " ms, started in "
              << inMilliseconds(started - made) << " ms, shut down in " << inMilliseconds(stopped - toStop)
              << " ms\n";
    // Ten times the goal of 300 ms, for a sanitizer on a busy machine; a listing for each takes 10 s.
    EXPECT_LT(inMilliseconds(started - begin + (stopped - toStop)), 3000);
}

}  // namespace Nubo::ServiceDiscovery::Testing
