#include "DataLayer/EngineFrame.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "faults/HubDelegates.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/SystemFaults.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Reports that are made while another thread handles one, and from within lines of the log. None waits for
// another thread: the platform's dispatcher delivers with a lock held, and other platforms may.
namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

namespace {

constexpr std::chrono::seconds atMost{5};
constexpr auto globalAddress = "fd00::1";
constexpr auto joining0 = "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".";
constexpr auto joining1 = "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth1\".";
constexpr auto nonsense =
    "Error: ServiceDiscovery failed to remove Interface \"eth1\" with IP \"nonsense\" for sending: Invalid "
    "address: nonsense";
constexpr auto noThread =
    "Error: SDCommunicationHub - no thread to retry interfaces: Resource temporarily unavailable";
constexpr auto leavingAll =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.";

void report(SDCommunicationHub& hub, const char* name, const char* ip)
{
    OEMInterface::AddServiceDiscoveryInterfacePayload payload{{name, ip}};
    reportAdded(hub, payload);
}

void takeBack(SDCommunicationHub& hub, const char* name, const char* ip)
{
    OEMInterface::RemoveServiceDiscoveryInterfacePayload payload{{name, ip}};
    reportRemoved(hub, payload);
}

struct ReportingThreadsTest : ::testing::Test
{
    ReportingThreadsTest()
    {
        network.link("eth0", globalAddress);
        network.link("eth1", "fd01::1");
        network.link("eth2", "fd02::1");
    }

    static void use(const Poco::SharedPtr<OEMInterface::OEMDispatcher>& dispatcher)
    {
        PlatformScope::withdraw();
        ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher), dispatcher);
    }

    void start() { EXPECT_TRUE(unit.hub.start(IPAddress(globalAddress))); }

    /// Reports eth1 and eth2 while a start uses eth0, and takes longer than it handles reports.
    void leaveNoTime(const std::string& line)
    {
        if (line == joining0)
            unit.platform.dispatcher().addInterface("eth1", "fd01::1");
        if (line == joining1) {
            unit.platform.dispatcher().addInterface("eth2", "fd02::1");
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
        }
    }

    NetworkPair network;
    LogCatcher log;
    HubUnit unit;
};

/// A line of the log that a thread at work writes.
struct BusyPlace
{
    const char* name;
    const char* line;
    std::function<void(ReportingThreadsTest&)> prepare;
    std::function<void(ReportingThreadsTest&)> provoke;

    friend void PrintTo(const BusyPlace& place, std::ostream* stream) { *stream << place.name; }
};

/// Reports that are made while the thread at work handles another, and what is in use after them.
struct WaitingReports
{
    struct Waiting
    {
        void (*make)(SDCommunicationHub& hub, const char* name, const char* ip);
        const char* name;
        const char* ip;
    };

    const char* name;
    std::vector<Waiting> reports;
    std::vector<std::string> joined;

    friend void PrintTo(const WaitingReports& row, std::ostream* stream) { *stream << row.name; }
};

/// A platform that keeps the delegates and reports by them from any thread.
struct KeepingDispatcher : OEMInterface::OEMDispatcher
{
    OEMInterface::ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<OEMInterface::AddServiceDiscoveryInterfacePayload>& delegate) override
    {
        added.reset(delegate.clone());
        return new OEMInterface::ResponseBinding;
    }
    OEMInterface::ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<OEMInterface::RemoveServiceDiscoveryInterfacePayload>&) override
    {
        return new OEMInterface::ResponseBinding;
    }
    void callLogEvent(char const*, char const*, char const*, unsigned short) override {}

    void report(const char* name, const char* ip)
    {
        OEMInterface::AddServiceDiscoveryInterfacePayload payload{{name, ip}};
        added->notify(this, payload);
    }

    std::unique_ptr<Poco::AbstractDelegate<OEMInterface::AddServiceDiscoveryInterfacePayload>> added;
};

/// A platform without memory for the second of the two bindings. When the first one is released, it brings
/// one more report.
struct FailingDispatcher : KeepingDispatcher
{
    using Delegate = Poco::AbstractDelegate<OEMInterface::RemoveServiceDiscoveryInterfacePayload>;

    struct LastReport : OEMInterface::ResponseBinding
    {
        explicit LastReport(const Delegate& delegate) : removed(delegate.clone()) {}
        ~LastReport() override
        {
            OEMInterface::RemoveServiceDiscoveryInterfacePayload payload{{"eth9", "fd09::1"}};
            removed->notify(nullptr, payload);
        }

        const std::unique_ptr<Delegate> removed;
    };

    OEMInterface::ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<OEMInterface::AddServiceDiscoveryInterfacePayload>&) override
    {
        throw std::bad_alloc();
    }
    OEMInterface::ResponseBindingPtr bindResponse(const Delegate& delegate) override
    {
        return new LastReport(delegate);
    }
};

struct WaitingReportsTest : ReportingThreadsTest, ::testing::WithParamInterface<WaitingReports>
{};

struct BusyPlaceTest : ReportingThreadsTest, ::testing::WithParamInterface<BusyPlace>
{};

}  // namespace

TEST_F(ReportingThreadsTest, ReportByADelegateThatDeliversAnotherIsNotHeldUp)
{
    Poco::SharedPtr<KeepingDispatcher> dispatcher(new KeepingDispatcher);
    use(dispatcher);
    SDCommunicationHub hub(unit.facade);
    std::atomic<bool> isReported{false};
    bool isHeldUp = true;
    std::thread other;
    log.onLine([&](const std::string& line) {
        if (line != joining0)
            return;
        other = std::thread([&] {
            dispatcher->report("eth1", "fd01::1");
            isReported = true;
        });
        isHeldUp = !eventually([&] { return isReported.load(); }, atMost);
    });

    dispatcher->report("eth0", globalAddress);

    log.onLine(nullptr);
    other.join();
    EXPECT_FALSE(isHeldUp);
    EXPECT_THAT(joinedInterfaces(), UnorderedElementsAre("eth0", "eth1"));
}

TEST_F(ReportingThreadsTest, HubThatCannotBeMadeStillHandlesWhatIsReportedUntilItIsUnbound)
{
    use(new FailingDispatcher);

    EXPECT_THROW(SDCommunicationHub hub(unit.facade), std::bad_alloc);

    EXPECT_TRUE(
        log.has("Warning: Failed to leave IPv6 Multicast Group on Interface \"eth9\" with IP "
                "\"fd09::1\": not joined(?)"));
}

/// As from a line of the log that a timer or a call of the registry writes, which hold locks.
TEST_F(ReportingThreadsTest, ReportOfAThreadThatDoesTheEnginesWorkIsHandledByAnother)
{
    std::atomic<std::thread::id> joining{std::thread::id()};
    start();
    log.onLine([&](const std::string& line) {
        if (line == joining1)
            joining = std::this_thread::get_id();
    });

    {
        const EngineFrame working(this);
        unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    }

    EXPECT_TRUE(eventually([&] { return joining.load() != std::thread::id(); }));
    EXPECT_NE(joining.load(), std::this_thread::get_id());
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth1"));
    log.onLine(nullptr);
}

/// Start and stop handle reports for half a second, when they come without a pause.
TEST_F(ReportingThreadsTest, ReportsThatAStartHasNoTimeForAreHandledAllTheSame)
{
    auto& dispatcher = unit.platform.dispatcher();
    dispatcher.addInterface("eth0", globalAddress);
    start();
    unit.hub.stop();
    log.onLine([&](const std::string& line) { leaveNoTime(line); });

    start();

    EXPECT_TRUE(eventually([] { return joinedInterfaces().size() == 3; }));
}

TEST_F(ReportingThreadsTest, LineAboutAMissingThreadIsWrittenWithNothingHeld)
{
    auto& dispatcher = unit.platform.dispatcher();
    std::optional<SystemFault> fault;
    std::thread other;
    std::atomic<bool> isReported{false};
    std::atomic<bool> isReturned{false};
    dispatcher.addInterface("eth0", globalAddress);
    start();
    unit.hub.stop();
    log.onLine([&](const std::string& line) {
        leaveNoTime(line);
        if (line == joining1)
            fault.emplace(SystemFault::Plan{SystemCall::Thread});
        if (line == noThread) {
            other = std::thread([&] {
                dispatcher.addInterface("eth1", "nonsense");
                isReported = true;
            });
            isReturned = eventually([&] { return isReported.load(); }, atMost);
        }
    });

    {
        const InMarkedThread marked;
        start();
    }
    log.onLine(nullptr);

    EXPECT_TRUE(isReturned);
    if (other.joinable())
        other.join();
}

/// Neither the thread at work nor the stop, once it has its turn, handles reports for ever.
TEST_F(ReportingThreadsTest, StopReturnsWhileReportsComeWithoutAPause)
{
    std::atomic<bool> isHandling{false};
    std::atomic<bool> isStopped{false};
    std::atomic<bool> isFedUp{false};
    start();
    const auto begin = std::chrono::steady_clock::now();
    log.onLine([&](const std::string& line) {
        if (line != nonsense || isStopped)
            return;
        isHandling = true;
        isFedUp = std::chrono::steady_clock::now() - begin > atMost;
        if (!isFedUp)
            std::thread([&] { takeBack(unit.hub, "eth1", "nonsense"); }).join();
    });
    std::thread platform([&] { takeBack(unit.hub, "eth1", "nonsense"); });
    EXPECT_TRUE(eventually([&] { return isHandling.load(); }));

    unit.hub.stop();
    isStopped = true;

    platform.join();
    EXPECT_FALSE(isFedUp) << "the stop waited until no further report came";
}

TEST_P(WaitingReportsTest, AreAllHandledUnlessOneRepeatsWhatTheLastTwoOfItsInterfaceSay)
{
    report(unit.hub, "eth1", "fd01::1");
    network.here.ip("address delete fd01::1/64 dev eth1");
    network.here.addAddress("eth1", "fd01::2/64");
    network.here.addAddress("eth2", "fd01::1/64");
    bool isDone = false;
    log.onLine([&](const std::string& line) {
        if (line != joining0 || std::exchange(isDone, true))
            return;
        for (const auto& waiting : GetParam().reports)
            waiting.make(unit.hub, waiting.name, waiting.ip);
    });

    report(unit.hub, "eth0", globalAddress);
    log.onLine(nullptr);

    EXPECT_EQ(joinedInterfaces(), GetParam().joined);
}

INSTANTIATE_TEST_SUITE_P(
    Of, WaitingReportsTest,
    ::testing::Values(
        WaitingReports{
            "AnInterfaceInUse", {{report, "eth1", "fd01::1"}, {takeBack, "eth1", "fd01::1"}}, {"eth0"}},
        WaitingReports{
            "TwoAddresses",
            {{takeBack, "eth1", "fd01::1"}, {report, "eth1", "fd01::2"}, {takeBack, "eth1", "fd01::1"}},
            {"eth0", "eth1"}},
        WaitingReports{
            "TwoInterfaces",
            {{takeBack, "eth1", "fd01::1"}, {report, "eth2", "fd01::1"}, {takeBack, "eth1", "fd01::1"}},
            {"eth0", "eth2"}}),
    ::testing::PrintToStringParamName());

TEST_P(BusyPlaceTest, ReportsFromThereAndFromAnotherThreadWaitForNobodyAndAreHandled)
{
    auto& dispatcher = unit.platform.dispatcher();
    std::thread other;
    std::atomic<bool> isReported{false};
    std::atomic<bool> isReturned{false};
    GetParam().prepare(*this);
    log.onLine([&](const std::string& line) {
        if (line != GetParam().line || other.joinable())
            return;
        other = std::thread([&] {
            dispatcher.addInterface("eth2", "fd02::1");
            isReported = true;
        });
        isReturned = eventually([&] { return isReported.load(); }, atMost);
        if (isReturned)
            dispatcher.addInterface("eth1", "fd01::1");
    });

    GetParam().provoke(*this);

    EXPECT_TRUE(eventually([] {
        const auto joined = joinedInterfaces();
        return std::count(joined.begin(), joined.end(), "eth1") == 1 &&
               std::count(joined.begin(), joined.end(), "eth2") == 1;
    }));
    EXPECT_TRUE(isReturned);
    log.onLine(nullptr);
    if (other.joinable())
        other.join();
    unit.hub.stop();
    start();
    EXPECT_THAT(joinedInterfaces(), UnorderedElementsAre("eth0", "eth1", "eth2"));
}

INSTANTIATE_TEST_SUITE_P(
    In, BusyPlaceTest,
    ::testing::Values(BusyPlace{"AReport", joining0, [](auto& test) { test.start(); },
                                [](auto& test) { report(test.unit.hub, "eth0", "fd00::1"); }},
                      BusyPlace{"ARetry", joining0,
                                [](auto& test) {
                                    test.network.here.ip("address delete fd00::1/64 dev eth0");
                                    report(test.unit.hub, "eth0", "fd00::1");
                                    test.start();
                                },
                                [](auto& test) { test.network.here.addAddress("eth0", "fd00::1/64"); }},
                      BusyPlace{"TheStart", joining0,
                                [](auto& test) {
                                    report(test.unit.hub, "eth0", "fd00::1");
                                    test.start();
                                    test.unit.hub.stop();
                                },
                                [](auto& test) { test.start(); }},
                      BusyPlace{"TheStop", leavingAll,
                                [](auto& test) {
                                    report(test.unit.hub, "eth0", "fd00::1");
                                    test.start();
                                },
                                [](auto& test) { test.unit.hub.stop(); }}),
    ::testing::PrintToStringParamName());

TEST_F(ReportingThreadsTest, TwoEnginesMayReportToEachOther)
{
    HubUnit second;
    std::atomic<int> inLine{0};
    std::atomic<bool> isReported{false};
    std::atomic<bool> isReturned{false};
    log.onLine([&](const std::string& line) {
        if (line != joining0)
            return;
        const bool isFirst = ++inLine == 1;
        isFirst ? eventually([&] { return inLine == 2; }, atMost)
                : isReturned = eventually([&] { return isReported.load(); }, atMost);
        report(unit.hub, "eth1", "fd01::1");
        report(second.hub, "eth1", "fd01::1");
        isReported = true;
    });

    std::thread other([&] { report(second.hub, "eth0", globalAddress); });
    report(unit.hub, "eth0", globalAddress);
    other.join();
    log.onLine(nullptr);

    EXPECT_TRUE(isReturned);
    EXPECT_THAT(groupUsers(), ElementsAre(Pair("eth0", 2u), Pair("eth1", 2u)));
}

TEST_F(ReportingThreadsTest, NoMoreThan16384ReportsWaitWhileOneIsHandled)
{
    bool isDone = false;
    log.onLine([&](const std::string& line) {
        if (line != joining0 || std::exchange(isDone, true))
            return;
        std::thread other([&] {
            for (int i = 0; i < 16384 + 3; ++i)
                takeBack(unit.hub, "eth1", "nonsense");
        });
        other.join();
    });

    start();
    report(unit.hub, "eth0", globalAddress);
    log.onLine(nullptr);

    EXPECT_TRUE(eventually([&] { return log.count(nonsense) == 16384; })) << "what takes too long is left";
    EXPECT_TRUE(eventually([&] { return !log.errors().empty() && log.errors().back() != nonsense; }));
    EXPECT_EQ(log.errors().back(),
              "Error: SDCommunicationHub - 3 reports of interfaces are dropped: 16384 "
              "others were waiting.");
    report(unit.hub, "eth2", "fd02::1");
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth2"));
}

TEST_F(ReportingThreadsTest, ReportsOfOtherThreadsAreNotCountedAsMadeFromWithinLines)
{
    bool isDone = false;
    log.onLine([&](const std::string& line) {
        if (line != joining0 || std::exchange(isDone, true))
            return;
        std::thread other([&] {
            for (int i = 0; i < 1024; ++i)
                takeBack(unit.hub, "eth1", "nonsense");
        });
        other.join();
        report(unit.hub, "eth2", "fd02::1");
    });

    report(unit.hub, "eth0", globalAddress);
    log.onLine(nullptr);

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth2"));
}

TEST_F(ReportingThreadsTest, InterfaceThatIsReportedWithoutAPauseDoesNotFillTheQueue)
{
    bool isDone = false;
    log.onLine([&](const std::string& line) {
        if (line != joining0 || std::exchange(isDone, true))
            return;
        std::thread other([&] {
            for (int i = 0; i < 16384; ++i) {
                report(unit.hub, "eth1", "fd01::1");
                takeBack(unit.hub, "eth1", "fd01::1");
            }
            report(unit.hub, "eth1", "fd01::1");
        });
        other.join();
    });

    report(unit.hub, "eth0", globalAddress);
    log.onLine(nullptr);

    EXPECT_THAT(log.errors(), IsEmpty());
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
