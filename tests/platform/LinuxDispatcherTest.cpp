#include "DispatcherFixture.h"
#include "support/LogCatcher.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <KELOEMInterfaceLib/ManualDispatcher.h>

#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

using OEMInterface::AddServiceDiscoveryInterfacePayload;
using OEMInterface::LinuxDispatcher;
using OEMInterface::ManualDispatcher;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using LinuxDispatcherTest = DispatcherFixture;

namespace {

struct Thrown
{
    const char* name;
    std::function<void()> raise;
    std::string text;  ///< in the log

    friend std::ostream& operator<<(std::ostream& stream, const Thrown& row) { return stream << row.text; }
};

struct ThrowingDelegateTest : LinuxDispatcherTest, ::testing::WithParamInterface<Thrown>
{};

}  // namespace

TEST_F(LinuxDispatcherTest, ReportsReachEverybodyWhoIsBound)
{
    const Reports one(dispatcher);
    const Reports other(dispatcher);

    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.removeInterface("eth0", "fd00::1");

    EXPECT_THAT(one.lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
    EXPECT_EQ(other.lines(), one.lines());
}

TEST_F(LinuxDispatcherTest, ManualReportsComeOnTheCallingThreadAsOftenAsTold)
{
    Reports reports(dispatcher);
    std::vector<std::thread::id> threads;
    reports.onReport([&] { threads.push_back(std::this_thread::get_id()); });

    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.removeInterface("eth7", "fd00::7");

    EXPECT_THAT(reports.lines(), ElementsAre("+eth0 fd00::1", "+eth0 fd00::1", "-eth7 fd00::7"));
    EXPECT_THAT(threads, ::testing::Each(std::this_thread::get_id()));
}

TEST_F(LinuxDispatcherTest, WhoBindsLateIsToldWhatStandsReportedAtOnce)
{
    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "fd01::1");
    dispatcher.addInterface("eth2", "fd02::1");
    dispatcher.removeInterface("eth1", "fd01::1");

    const Reports late(dispatcher);

    EXPECT_THAT(late.lines(), ElementsAre("+eth0 fd00::1", "+eth2 fd02::1"));
}

TEST_F(LinuxDispatcherTest, WhoIsBoundIsNotToldAgainWhenAnotherBinds)
{
    const Reports early(dispatcher);
    dispatcher.addInterface("eth0", "fd00::1");

    const Reports late(dispatcher);

    EXPECT_THAT(early.lines(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(LinuxDispatcherTest, EndOfTheBindingEndsTheReports)
{
    Reports reports(dispatcher);
    dispatcher.addInterface("eth0", "fd00::1");

    reports.unbind();
    dispatcher.addInterface("eth1", "fd01::1");
    dispatcher.removeInterface("eth0", "fd00::1");

    EXPECT_THAT(reports.lines(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(LinuxDispatcherTest, BindingLastsUntilItsLastReferenceGoes)
{
    struct Counter
    {
        void onAdded(AddServiceDiscoveryInterfacePayload&) { ++count; }
        int count = 0;
    } counter;

    auto binding = dispatcher.bindResponse(Poco::delegate(&counter, &Counter::onAdded));
    auto copy = binding;
    binding.reset();
    dispatcher.addInterface("eth0", "fd00::1");
    EXPECT_EQ(counter.count, 1);

    copy.reset();
    dispatcher.addInterface("eth1", "fd01::1");
    EXPECT_EQ(counter.count, 1);
}

TEST_F(LinuxDispatcherTest, EndOfTheBindingWaitsForADelivery)
{
    Reports reports(dispatcher);
    Gate gate;
    reports.onReport([&] { gate.pass(); });
    std::atomic<bool> isUnbound{false};
    std::thread reporting([&] { dispatcher.addInterface("eth0", "fd00::1"); });
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));

    std::thread unbinding([&] {
        reports.unbind();
        isUnbound = true;
    });
    EXPECT_TRUE(keeps([&] { return !isUnbound; }, std::chrono::milliseconds(200)));
    gate.open();
    reporting.join();
    unbinding.join();

    EXPECT_TRUE(isUnbound);
}

TEST_F(LinuxDispatcherTest, BindingEndsInAForkedChildThoughTheParentWasDelivering)
{
    Reports reports(dispatcher);
    Gate gate;
    reports.onReport([&] { gate.pass(); });
    std::thread reporting([&] { dispatcher.addInterface("eth0", "fd00::1"); });
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));
    const auto unbind = [&] {
        ::alarm(10);
        reports.unbind();
        ::_exit(EXIT_SUCCESS);
    };

    EXPECT_EXIT(unbind(), ::testing::ExitedWithCode(EXIT_SUCCESS), "");

    gate.open();
    reporting.join();
    dispatcher.addInterface("eth1", "fd01::1");
    EXPECT_THAT(reports.lines(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1")) << "bound in the parent";
}

TEST_F(LinuxDispatcherTest, BindingMayOutliveTheDispatcher)
{
    auto own = std::make_unique<ManualDispatcher>();
    Reports reports(*own);

    own.reset();
    reports.unbind();

    EXPECT_THAT(reports.lines(), IsEmpty());
}

TEST_F(LinuxDispatcherTest, DelegateMayCallTheDispatcher)
{
    const LogCatcher log;
    Reports reports(dispatcher);
    std::unique_ptr<Reports> second;
    bool isNested = false;
    reports.onReport([&] {
        if (std::exchange(isNested, true))
            return;
        EXPECT_THAT(standing(), ElementsAre("eth0 fd00::1"));
        dispatcher.callLogEvent("Media", "http", "fd00::9", 80);
        dispatcher.addInterface("eth1", "fd01::1");
        second = std::make_unique<Reports>(dispatcher);
    });

    dispatcher.addInterface("eth0", "fd00::1");

    EXPECT_THAT(reports.lines(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1"));
    EXPECT_THAT(second->lines(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1"));
    EXPECT_THAT(dispatcher.logEntries(), SizeIs(1));
}

TEST_F(LinuxDispatcherTest, DelegateWhoseBindingAnotherEndsGetsNothingOfThatRound)
{
    Reports first(dispatcher);
    Reports second(dispatcher);
    Reports third(dispatcher);
    first.onReport([&] { second.unbind(); });
    third.onReport([&] { first.unbind(); });

    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "fd01::1");

    EXPECT_THAT(first.lines(), ElementsAre("+eth0 fd00::1"));
    EXPECT_THAT(second.lines(), IsEmpty());
    EXPECT_THAT(third.lines(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1"));
}

TEST_F(LinuxDispatcherTest, StandingInterfaceThatADelegateRemovesIsNotReportedToItAfterwards)
{
    struct Remover
    {
        void onAdded(AddServiceDiscoveryInterfacePayload& payload)
        {
            names.emplace_back(payload.eventData.pInterfaceName);
            owner.removeInterface("eth1", "fd01::1");
        }
        ManualDispatcher& owner;
        std::vector<std::string> names;
    } remover{dispatcher, {}};
    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "fd01::1");
    dispatcher.addInterface("eth2", "fd02::1");

    const auto binding = dispatcher.bindResponse(Poco::delegate(&remover, &Remover::onAdded));

    EXPECT_THAT(remover.names, ElementsAre("eth0", "eth2"));
}

TEST_F(LinuxDispatcherTest, DelegateMayCallTheDispatcherWhileItsBindingEnds)
{
    Reports reports(dispatcher);
    Gate gate;
    bool isNested = false;
    reports.onReport([&] {
        gate.pass();
        if (!std::exchange(isNested, true))
            dispatcher.addInterface("eth1", "fd01::1");
    });
    std::atomic<int> ended{0};
    std::thread reporting([&] {
        dispatcher.addInterface("eth0", "fd00::1");
        ++ended;
    });
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));
    std::thread unbinding([&] {
        reports.unbind();
        ++ended;
    });
    EXPECT_TRUE(keeps([&] { return ended == 0; }, std::chrono::milliseconds(200)));

    gate.open();

    if (!eventually([&] { return ended == 2; })) {
        ADD_FAILURE() << "delegate and end of the binding wait for each other";
        std::_Exit(EXIT_FAILURE);  // the threads can never be joined
    }
    reporting.join();
    unbinding.join();
}

TEST_F(LinuxDispatcherTest, DelegateMayEndItsOwnBinding)
{
    Reports reports(dispatcher);
    reports.onReport([&] { reports.unbind(); });

    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "fd01::1");

    EXPECT_THAT(reports.lines(), ElementsAre("+eth0 fd00::1"));
}

TEST_P(ThrowingDelegateTest, CostsNobodyAReportAndIsLogged)
{
    const LogCatcher log;
    Reports throwing(dispatcher);
    const Reports other(dispatcher);
    throwing.onReport(GetParam().raise);

    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.removeInterface("eth0", "fd00::1");

    EXPECT_THAT(throwing.lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
    EXPECT_EQ(other.lines(), throwing.lines());
    EXPECT_THAT(log.lines(), ElementsAre("Error: LinuxDispatcher - a delegate failed to add the interface "
                                         "\"eth0\" @ [fd00::1]: " +
                                             GetParam().text,
                                         "Error: LinuxDispatcher - a delegate failed to remove the interface "
                                         "\"eth0\" @ [fd00::1]: " +
                                             GetParam().text));
    EXPECT_THAT(log.errors(), SizeIs(2));
}

INSTANTIATE_TEST_SUITE_P(Exceptions, ThrowingDelegateTest,
                         ::testing::Values(Thrown{"OfPoco", [] { throw Poco::IOException("disk full"); },
                                                  "I/O error: disk full"},
                                           Thrown{"OfTheStandardLibrary",
                                                  [] { throw std::runtime_error("too much"); }, "too much"},
                                           Thrown{"OfAnyOtherType", [] { throw 42; }, "unknown exception"}),
                         [](const auto& row) { return row.param.name; });

TEST_F(LinuxDispatcherTest, DelegateThatThrowsOnAStandingInterfaceIsBoundAndGetsTheOthers)
{
    const LogCatcher log;
    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "fd01::1");
    struct
    {
        void onAdded(AddServiceDiscoveryInterfacePayload& payload)
        {
            names.emplace_back(payload.eventData.pInterfaceName);
            throw std::runtime_error("too much");
        }
        std::vector<std::string> names;
    } throwing;

    const auto binding = dispatcher.bindResponse(
        Poco::delegate(&throwing, &std::remove_reference_t<decltype(throwing)>::onAdded));
    dispatcher.addInterface("eth2", "fd02::1");

    EXPECT_THAT(throwing.names, ElementsAre("eth0", "eth1", "eth2"));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: LinuxDispatcher - a delegate failed to add the interface \"eth0\" @ "
                            "[fd00::1]: too much",
                            "Error: LinuxDispatcher - a delegate failed to add the interface \"eth1\" @ "
                            "[fd01::1]: too much",
                            "Error: LinuxDispatcher - a delegate failed to add the interface \"eth2\" @ "
                            "[fd02::1]: too much"));
}

TEST_F(LinuxDispatcherTest, DelegateThatThrowsCostsNobodyAReportWhenTheLogThrowsToo)
{
    LogCatcher log;
    log.onLine([](const std::string&) { throw std::runtime_error("no disk"); });
    Reports throwing(dispatcher);
    const Reports other(dispatcher);
    throwing.onReport([] { throw std::runtime_error("too much"); });

    dispatcher.addInterface("eth0", "fd00::1");

    EXPECT_THAT(other.lines(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(LinuxDispatcherTest, ChildForkedInALineAboutADelegateEndsWhenTheLineDoes)
{
    constexpr int works = 10;
    constexpr int isWrong = 11;
    EXPECT_EXIT(
        {
            ::alarm(20);
            pid_t child = -1;
            LogCatcher log;
            log.onLine([&](const std::string&) { child = ::fork(); });
            Reports throwing(dispatcher);
            throwing.onReport([] { throw std::runtime_error("too much"); });
            dispatcher.addInterface("eth0", "fd00::1");
            int status = EXIT_FAILURE;
            const bool isEnded = child > 0 && ::waitpid(child, &status, 0) == child;
            ::_exit(isEnded && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS ? works : isWrong);
        },
        ::testing::ExitedWithCode(works), "");
}

TEST_F(LinuxDispatcherTest, NobodyWhoBindsMeanwhileMissesAReportOrGetsItTwice)
{
    constexpr int number = 200;
    std::thread reporting([&] {
        for (int i = 0; i < number; ++i)
            dispatcher.addInterface("eth" + std::to_string(i), "fd00::1");
    });

    std::vector<std::unique_ptr<Reports>> all;
    for (int i = 0; i < 20; ++i)
        all.push_back(std::make_unique<Reports>(dispatcher));
    reporting.join();

    for (const auto& reports : all) {
        const std::vector<std::string> lines = reports->lines();
        ASSERT_THAT(lines, SizeIs(number));
        for (int i = 0; i < number; ++i)
            EXPECT_EQ(lines[static_cast<std::size_t>(i)], "+eth" + std::to_string(i) + " fd00::1");
    }
}

TEST_F(LinuxDispatcherTest, ReportsAreDeliveredOneAfterTheOther)
{
    Reports reports(dispatcher);
    std::atomic<int> delivering{0};
    std::atomic<bool> wasAlone{true};
    reports.onReport([&] {
        wasAlone = wasAlone && ++delivering == 1;
        --delivering;
    });
    const auto report = [&](const std::string& name) {
        for (int i = 0; i < 200; ++i)
            dispatcher.addInterface(name, "fd00::1");
    };

    std::thread one(report, "eth0");
    std::thread other(report, "eth1");
    one.join();
    other.join();

    EXPECT_TRUE(wasAlone);
    EXPECT_THAT(reports.lines(), SizeIs(400));
}

TEST_F(LinuxDispatcherTest, ReportThatADelegateMakesReachesLaterDelegatesBeforeTheOneUnderWay)
{
    Reports first(dispatcher);
    const Reports second(dispatcher);
    first.onReport([&] {
        if (first.lines().size() == 1)
            dispatcher.addInterface("eth1", "fd01::1");
    });

    dispatcher.addInterface("eth0", "fd00::1");

    EXPECT_THAT(first.lines(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1"));
    EXPECT_THAT(second.lines(), ElementsAre("+eth1 fd01::1", "+eth0 fd00::1"));
}

TEST_F(LinuxDispatcherTest, ThreadsMayUseItAtOnce)
{
    constexpr int each = 200;
    const auto use = [&](const std::string& name) {
        for (int i = 0; i < each; ++i) {
            const Reports reports(dispatcher);
            dispatcher.addInterface(name, "fd00::1");
            dispatcher.callLogEvent("Media", "http", "fd00::9", 80);
            dispatcher.interfaces();
            dispatcher.logEntries();
            dispatcher.removeInterface(name, "fd00::1");
        }
    };

    std::thread one(use, "eth0");
    std::thread other(use, "eth1");
    one.join();
    other.join();

    EXPECT_THAT(standing(), IsEmpty());
    EXPECT_THAT(dispatcher.logEntries(), SizeIs(2 * each));
}

TEST_F(LinuxDispatcherTest, EventMemoryKeepsWhatIsWrittenAndLogsIt)
{
    const LogCatcher log;

    dispatcher.callLogEvent("Media", "http", "fd00::9", 8080);

    ASSERT_THAT(dispatcher.logEntries(), SizeIs(1));
    const LinuxDispatcher::LogEntry entry = dispatcher.logEntries().front();
    EXPECT_EQ(entry.name, "Media");
    EXPECT_EQ(entry.protocol, "http");
    EXPECT_EQ(entry.ip, "fd00::9");
    EXPECT_EQ(entry.port, 8080);
    EXPECT_THAT(log.lines(), ElementsAre("Notice: Event memory: http service \"Media\" @ [fd00::9]:8080"));
}

TEST_F(LinuxDispatcherTest, EventMemoryKeepsTheNewestThousandEntries)
{
    for (unsigned short port = 1; port <= 1001; ++port)
        dispatcher.callLogEvent("Media", "http", "fd00::9", port);

    const auto entries = dispatcher.logEntries();
    ASSERT_THAT(entries, SizeIs(LinuxDispatcher::maxLogEntries));
    EXPECT_EQ(entries.size(), 1000u);
    EXPECT_EQ(entries.front().port, 2);
    EXPECT_EQ(entries.back().port, 1001);
}

TEST_F(LinuxDispatcherTest, EventMemoryKeepsWhatTheLogFailsToWrite)
{
    LogCatcher log;
    log.onLine([](const std::string&) { throw std::runtime_error("no disk"); });

    EXPECT_NO_THROW(dispatcher.callLogEvent("Media", "http", "fd00::9", 8080));

    EXPECT_THAT(dispatcher.logEntries(), SizeIs(1));
}

TEST_F(LinuxDispatcherTest, MissingTextOfTheEventMemoryIsEmpty)
{
    const LogCatcher log;

    dispatcher.callLogEvent(nullptr, nullptr, nullptr, 8080);

    ASSERT_THAT(dispatcher.logEntries(), SizeIs(1));
    const LinuxDispatcher::LogEntry entry = dispatcher.logEntries().front();
    EXPECT_EQ(entry.name, "");
    EXPECT_EQ(entry.protocol, "");
    EXPECT_EQ(entry.ip, "");
    EXPECT_EQ(entry.port, 8080);
    EXPECT_THAT(log.lines(), ElementsAre("Notice: Event memory:  service \"\" @ []:8080"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
