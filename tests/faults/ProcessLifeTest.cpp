#include "ProcessFixture.h"
#include "support/LogCatcher.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

// A facade in a process that starts programs, ends at an odd moment, or was started without standard streams.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::IsEmpty;
using ::testing::Not;

namespace {

using ProcessLifeTest = ProcessFixture;

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

}  // namespace

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

}  // namespace Nubo::ServiceDiscovery::Testing
