#include "LogicLayer/SDCommunicationHub.h"
#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/OpenHub.h"
#include "support/Packets.h"
#include "support/Platform.h"
#include "support/Registry.h"
#include "support/Waiting.h"

#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <atomic>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Payload = ServiceDiscovery::ServiceListEventPayload;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

const Poco::Net::IPAddress address("fd00::1");

constexpr auto refusedCall = "Error: ServiceDiscovery - call from within ServiceListChanged is not possible.";

struct ServiceDiscoveryTest : ::testing::Test
{
    /// Lets an offer come in, as the request handler does.
    void receiveOffer(const std::string& name) { receiveOffer(name, discovery); }
    static void receiveOffer(const std::string& name, OpenDiscovery& receiving)
    {
        const std::string bytes = Packets::offer(name);
        SDRequestHandler::OfferServicePayload payload{
            Packets::firstEntryOf(bytes), Poco::Net::SocketAddress(Packets::otherUnitOrigin), false};
        receiving.hub.onOfferServiceReceived(payload);
    }

    /// The records that wait to be sent.
    ServicesContainer waiting()
    {
        ServicesContainer aperiodic;
        ServicesContainer periodic;
        discovery.hub.m_statemachine.unsafe_findServices(ServiceIdentity(), aperiodic, periodic);
        return aperiodic;
    }

    PlatformScope platform;
    OpenDiscovery discovery;
    Registry registry{discovery};
    LogCatcher log;
};

struct CallCase
{
    const char* name;
    bool (*call)(ServiceDiscovery&);

    friend void PrintTo(const CallCase& row, std::ostream* stream) { *stream << row.name; }
};

struct ServiceDiscoveryReentryTest : ServiceDiscoveryTest, ::testing::WithParamInterface<CallCase>
{};

}  // namespace

TEST(ServiceListEventPayloadTest, EventTypesHaveTheirNumbers)
{
    EXPECT_EQ(ServiceDiscovery::EventType::SERVICE_DISCOVERED, 0u);
    EXPECT_EQ(ServiceDiscovery::EventType::SERVICE_GONE, 1u);
    EXPECT_EQ(sizeof(ServiceDiscovery::EventType), 4u);
}

TEST(ServiceListEventPayloadTest, PayloadHoldsWhatItWasMadeOf)
{
    const NuboServiceDescription description = describe("Media");

    const Payload gone(Payload::SERVICE_GONE, &description, "id");
    const Payload discovered(Payload::SERVICE_DISCOVERED, &description);

    EXPECT_EQ(gone.getEventType(), Payload::SERVICE_GONE);
    EXPECT_EQ(gone.getServiceDescription(), &description);
    EXPECT_EQ(gone.getLocalUuid(), "id");
    EXPECT_EQ(discovered.getEventType(), Payload::SERVICE_DISCOVERED);
    EXPECT_EQ(discovered.getLocalUuid(), "");
}

TEST(ServiceListEventPayloadTest, SubscriberSetsTheIdentifier)
{
    const NuboServiceDescription description = describe("Media");
    Payload payload(Payload::SERVICE_DISCOVERED, &description);

    payload.setLocalUuid("id");

    EXPECT_EQ(payload.getLocalUuid(), "id");
}

TEST(ServiceDiscoveryConstructionTest, WithoutADispatcherThereIsNoFacade)
{
    try {
        const ServiceDiscovery discovery;
        FAIL() << "nothing was thrown";
    }
    catch (const Poco::Exception& exception) {
        EXPECT_EQ(exception.message(), "Can not start MulticastReceiver, OEM-Dispatcher is not available!");
    }
}

TEST(ServiceDiscoveryConstructionTest, FacadeMayBeDerivedFrom)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<ServiceDiscovery>);
}

TEST_F(ServiceDiscoveryTest, StartupIsRefusedOnWhatIsNoAddressOfAUnit)
{
    for (const std::string wrong : {"10.0.0.1", "0.0.0.0", "::", "ff14::4:0"}) {
        log.clear();

        EXPECT_FALSE(discovery.startup(Poco::Net::IPAddress(wrong)));

        EXPECT_FALSE(discovery.running());
        EXPECT_THAT(log.lines(), ElementsAre("Error: ServiceDiscovery failed to start: \"" + wrong +
                                             "\" is not the IPv6 address of a unit."));
    }
}

TEST_F(ServiceDiscoveryTest, FacadeIsNotRunningAtFirst)
{
    EXPECT_FALSE(discovery.running());
}

TEST_F(ServiceDiscoveryTest, StartupMakesItRunAndShutdownEndsIt)
{
    EXPECT_TRUE(discovery.startup(address));
    EXPECT_TRUE(discovery.running());

    EXPECT_TRUE(discovery.shutdown());
    EXPECT_FALSE(discovery.running());

    EXPECT_THAT(log.debugs(), Contains("Debug: SDCommunicationHub::start"));
    EXPECT_THAT(log.debugs(), Contains("Debug: SDCommunicationHub::stop"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, SecondStartupIsWarnedOfAndLeavesTheHubAlone)
{
    discovery.startup(address);
    log.clear();

    EXPECT_TRUE(discovery.startup(address));
    EXPECT_TRUE(discovery.startup(Poco::Net::IPAddress("::"))) << "on whatever address";

    EXPECT_TRUE(discovery.running());
    const auto line = "Warning: ServiceDiscovery is already running.";
    EXPECT_THAT(log.complaints(), ElementsAre(line, line));
    EXPECT_THAT(log.debugs(), Not(Contains("Debug: SDCommunicationHub::start")));
}

TEST_F(ServiceDiscoveryTest, ShutdownWithoutStartupDoesNothingAndSucceeds)
{
    EXPECT_TRUE(discovery.shutdown());

    EXPECT_FALSE(discovery.running());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, StartupThatFailsCanBeTriedAgain)
{
    ServiceDiscovery holdsThePort;
    ASSERT_TRUE(holdsThePort.startup(address));
    log.clear();

    EXPECT_FALSE(discovery.startup(address));
    EXPECT_FALSE(discovery.running());
    EXPECT_THAT(log.errors(), ElementsAre(StartsWith("Error: MultiCast binding failed: ")));
    EXPECT_THAT(log.warnings(), IsEmpty());

    holdsThePort.shutdown();
    EXPECT_TRUE(discovery.startup(address));
    EXPECT_TRUE(discovery.running());
}

TEST_F(ServiceDiscoveryTest, FacadeCanBeStartedAgainAfterAShutdown)
{
    discovery.startup(address);
    discovery.shutdown();

    EXPECT_TRUE(discovery.startup(address));

    EXPECT_TRUE(discovery.running());
}

TEST_F(ServiceDiscoveryTest, FacadeThatGoesIsShutDownFirst)
{
    auto other = std::make_unique<ServiceDiscovery>();
    ASSERT_TRUE(other->startup(address));

    other.reset();

    EXPECT_THAT(log.debugs(), Contains("Debug: SDStateMachine::stop"));
    EXPECT_TRUE(discovery.startup(address)) << "the port is free";
}

TEST_F(ServiceDiscoveryTest, AddedServiceIsAnnounced)
{
    EXPECT_TRUE(discovery.addService(describe("Media")));

    EXPECT_THAT(summaries(waiting()), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, ServiceThatIsAnnouncedAlreadyIsNotAddedAgain)
{
    discovery.addService(describe("Media"));

    EXPECT_FALSE(discovery.addService(describe("Media")));

    EXPECT_THAT(waiting(), SizeIs(1));
}

TEST_F(ServiceDiscoveryTest, DescriptionThatCannotBeUsedIsLoggedAndRefused)
{
    EXPECT_FALSE(discovery.addService(describe("Media", "fd00::1", 8080, "", "1.x.0")));

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                            "Version(s), not in semVer - format([~]major.minor.patch) (1.x.0)",
                            "Error: ServiceDiscovery failed to add Service due to Invalid argument - "));
    EXPECT_THAT(waiting(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, OtherExceptionsPassToTheCaller)
{
    discovery.hub.m_statemachine.unsafe_addPeriodicService(nullptr);

    EXPECT_THROW(discovery.addService(describe("Media")), Poco::NullPointerException);
    EXPECT_THROW(discovery.findService(describe("Media")), Poco::NullPointerException);
    EXPECT_THROW(discovery.removeService("id"), Poco::NullPointerException);
    EXPECT_THROW(discovery.getServices(), Poco::NullPointerException);
}

TEST_F(ServiceDiscoveryTest, DescriptionThatNoPacketCanHoldIsRefused)
{
    EXPECT_FALSE(discovery.addService(describe("a=b")));
    EXPECT_FALSE(discovery.addService(describe("")));

    EXPECT_THAT(waiting(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, SearchIsForAnyInstanceAndVersionOfTheName)
{
    NuboServiceDescription description;
    description.setName("Media");

    EXPECT_TRUE(discovery.findService(description));

    const ServicesContainer searches = waiting();
    ASSERT_THAT(summaries(searches), ElementsAre("Media WANTED INITIAL_WAIT_PHASE #65535"));
    const SDService& search = *searches.front();
    EXPECT_EQ(search.getServiceId(), 0xfffe);
    EXPECT_EQ(search.getMajorVersion(), 0xff);
    EXPECT_EQ(search.getMinorVersion(), 0xffffffff);
    EXPECT_EQ(search.getConfiguration(),
              (ConfigurationPairs{{"l6proto", "nubo"}, {"otherserv", "Media"}, {"txtvers", "1"}}));
    EXPECT_NE(search.getPacket(), "") << "of the trial";
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, SearchLooksAtNothingButTheName)
{
    EXPECT_TRUE(discovery.findService(describe("Media", "fd00::1", 8080, "id", "nonsense")));

    const ServicesContainer searches = waiting();
    ASSERT_THAT(searches, SizeIs(1));
    EXPECT_EQ(searches.front()->getNuboDescription().getPort(), 0);
    EXPECT_EQ(searches.front()->getNuboDescription().getLocalUuid(), "");
}

TEST_F(ServiceDiscoveryTest, NamelessServiceIsNotSearchedFor)
{
    EXPECT_FALSE(discovery.findService(NuboServiceDescription()));

    EXPECT_THAT(waiting(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, ServiceIsRemovedByItsIdentifier)
{
    discovery.addService(describe("Media", "fd00::1", 8080, "id"));

    EXPECT_FALSE(discovery.removeService("other"));
    EXPECT_FALSE(discovery.removeService(""));
    EXPECT_TRUE(discovery.removeService("id"));

    EXPECT_THAT(waiting(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, ServicesAddedBeforeTheStartupAreSentAfterIt)
{
    discovery.addService(describe("Media"));
    EXPECT_FALSE(log.has("Trace: SDCommunicationHub::announce(single)"));

    discovery.startup(address);

    EXPECT_TRUE(eventually([&] { return log.has("Trace: SDCommunicationHub::announce(single)"); }));
}

TEST_F(ServiceDiscoveryTest, ReceivedOfferIsToldAndTheRegistrysIdentifierComesBackWhenItIsGone)
{
    receiveOffer("Media");
    const std::string bytes = Packets::stopOffer("Media");
    SDRequestHandler::OfferServicePayload stop{Packets::firstEntryOf(bytes), Poco::Net::SocketAddress(),
                                               false};
    discovery.hub.onOfferServiceReceived(stop);

    const auto events = registry.events();
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[0].type, ServiceDiscovery::EventType::SERVICE_DISCOVERED);
    EXPECT_EQ(events[1].type, ServiceDiscovery::EventType::SERVICE_GONE);
    EXPECT_EQ(events[1].uuid, events[0].uuid);
}

TEST_F(ServiceDiscoveryTest, ServicesAreToldWithTheRegistrysIdentifiers)
{
    discovery.addService(describe("Navi", "fd00::1", 8080, "navi"));
    receiveOffer("Media");

    const ServiceDiscovery& constant = discovery;
    const std::vector<ServiceStatus> services = constant.getServices();

    ASSERT_THAT(services, SizeIs(2));
    EXPECT_EQ(services[0].description.getLocalUuid(), "navi");
    EXPECT_EQ(services[0].role, ServiceStatus::Role::ANNOUNCED);
    EXPECT_EQ(services[1].description.getLocalUuid(), registry.events().front().uuid);
    EXPECT_EQ(services[1].role, ServiceStatus::Role::DISCOVERED);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST(ServiceStatusTest, HasNoInstanceNumberUntilItIsGivenOne)
{
    EXPECT_EQ(ServiceStatus{}.instanceId, 0);
}

TEST_P(ServiceDiscoveryReentryTest, CallFromWithinTheEventIsRefused)
{
    discovery.addService(describe("Navi", "fd00::1", 8080, "navi"));
    log.clear();
    bool answer = true;
    registry.onEvent = [&](Payload&) { answer = GetParam().call(discovery); };

    receiveOffer("Media");

    EXPECT_FALSE(answer);
    EXPECT_THAT(log.complaints(), ElementsAre(refusedCall));
    EXPECT_FALSE(discovery.running());
    EXPECT_THAT(summaries(waiting()), ElementsAre("Navi ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_EQ(registry.discovered("Media"), 1u) << "the event itself goes on";
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ServiceDiscoveryReentryTest,
    ::testing::Values(CallCase{"Add", [](ServiceDiscovery& d) { return d.addService(describe("Radio")); }},
                      CallCase{"AddOfABadDescription",
                               [](ServiceDiscovery& d) { return d.addService(NuboServiceDescription()); }},
                      CallCase{"Find", [](ServiceDiscovery& d) { return d.findService(describe("Radio")); }},
                      CallCase{"Remove", [](ServiceDiscovery& d) { return d.removeService("navi"); }},
                      CallCase{"GetServices", [](ServiceDiscovery& d) { return !d.getServices().empty(); }},
                      CallCase{"Startup", [](ServiceDiscovery& d) { return d.startup(address); }},
                      CallCase{"Shutdown", [](ServiceDiscovery& d) { return d.shutdown(); }}),
    [](const auto& row) { return row.param.name; });

TEST_F(ServiceDiscoveryTest, ShutdownFromWithinTheEventLeavesItRunning)
{
    discovery.startup(address);
    bool answer = true;
    registry.onEvent = [&](Payload&) { answer = discovery.shutdown(); };

    receiveOffer("Media");

    EXPECT_FALSE(answer);
    EXPECT_TRUE(discovery.running());
    EXPECT_THAT(log.complaints(), ElementsAre(refusedCall));
}

TEST_F(ServiceDiscoveryTest, RunningMayBeAskedFromWithinTheEvent)
{
    discovery.startup(address);
    bool answer = false;
    registry.onEvent = [&](Payload&) { answer = discovery.running(); };

    receiveOffer("Media");

    EXPECT_TRUE(answer);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(ServiceDiscoveryTest, SubscriberThatRunsDuringTheStartupSeesItRunning)
{
    Multicast::MulticastDataPtr message = Packets::datagram(Packets::offer("Media"));
    discovery.hub.onMessageReceived(message);
    std::atomic<bool> wasRunning{false};
    registry.onEvent = [&](Payload&) { wasRunning = discovery.running(); };
    log.onLine([&](const std::string& line) {
        if (line == "Debug: SDStateMachine::start")
            eventually([&] { return registry.discovered("Media") == 1; });
    });

    discovery.startup(address);

    EXPECT_TRUE(wasRunning);
}

TEST_F(ServiceDiscoveryTest, SubscribersOfTwoFacadesMayCallEachOtherAndAreRefused)
{
    OpenDiscovery other;
    Registry otherRegistry(other);
    std::atomic<int> inEvent{0};
    std::atomic<int> refused{0};
    const auto call = [&](ServiceDiscovery& target) {
        ++inEvent;
        eventually([&] { return inEvent == 2; });
        refused += target.addService(describe("Radio")) ? 0 : 1;
    };
    registry.onEvent = [&](Payload&) { call(other); };
    otherRegistry.onEvent = [&](Payload&) { call(discovery); };

    std::thread thread([&] { receiveOffer("Media", other); });
    receiveOffer("Media");
    thread.join();

    EXPECT_EQ(refused, 2);
    EXPECT_THAT(log.complaints(), ElementsAre(refusedCall, refusedCall));
    EXPECT_TRUE(other.addService(describe("Radio")));
    EXPECT_TRUE(discovery.addService(describe("Radio")));
}

TEST_F(ServiceDiscoveryTest, LogChannelMayCallAndIsRefusedWhereItWouldWaitForItself)
{
    std::vector<bool> answers;
    log.onLine([&](const std::string& line) {
        if (line == "Debug: SDStateMachine::start" || line == "Debug: SDStateMachine::stop")
            answers.push_back(discovery.addService(describe("Radio")));
    });

    EXPECT_TRUE(discovery.startup(address));
    EXPECT_TRUE(discovery.shutdown());

    EXPECT_THAT(answers, ElementsAre(false, false));
    EXPECT_THAT(log.errors(), ElementsAre(refusedCall, refusedCall));
}

TEST_F(ServiceDiscoveryTest, SubscriberMayBeRemovedInItsEventByItselfAndByAnotherThread)
{
    struct Once
    {
        void onChanged(Payload&)
        {
            std::thread other([this] {
                event.operator-=(Poco::delegate(this, &Once::onChanged));
                isRemoved = true;
            });
            hasOtherReturned = eventually([this] { return isRemoved.load(); });
            if (hasOtherReturned)
                event.operator-=(Poco::delegate(this, &Once::onChanged));
            ++calls;
            other.join();
        }

        ServiceDiscovery::ServiceListEvent& event;
        std::atomic<bool> isRemoved{false};
        bool hasOtherReturned = false;
        int calls = 0;
    };
    Once subscriber{discovery.ServiceListChanged};
    discovery.ServiceListChanged += Poco::delegate(&subscriber, &Once::onChanged);

    receiveOffer("Media");
    receiveOffer("Navi");

    EXPECT_TRUE(subscriber.hasOtherReturned);
    EXPECT_EQ(subscriber.calls, 1);
    EXPECT_EQ(registry.discovered("Navi"), 1u);
}

TEST_F(ServiceDiscoveryTest, ThreadCanCallAgainWhenTheEventIsOver)
{
    registry.onEvent = [&](Payload&) { discovery.addService(describe("Radio")); };
    receiveOffer("Media");

    EXPECT_TRUE(discovery.addService(describe("Radio")));

    EXPECT_THAT(log.complaints(), ElementsAre(refusedCall));
}

TEST_F(ServiceDiscoveryTest, CallOfAnotherThreadWaitsForTheEventToEnd)
{
    std::thread thread;
    std::atomic<bool> isAnswered{false};
    bool answer = false;
    registry.onEvent = [&](Payload&) {
        thread = std::thread([&] {
            answer = discovery.addService(describe("Radio"));
            isAnswered = true;
        });
        EXPECT_TRUE(keeps([&] { return !isAnswered; }, std::chrono::milliseconds(50)));
    };

    receiveOffer("Media");
    thread.join();

    EXPECT_TRUE(answer);
    EXPECT_THAT(summaries(waiting()), ElementsAre("Radio ANNOUNCED INITIAL_WAIT_PHASE #1"));
}

TEST_F(ServiceDiscoveryTest, RequestsMayComeFromSeveralThreadsAtOnceWhileItRuns)
{
    discovery.startup(address);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 20; ++i) {
                const std::string name = "Service" + std::to_string(thread) + "." + std::to_string(i);
                const bool added = discovery.addService(describe(name, "fd00::1", 8080, name));
                const bool searched = discovery.findService(describe("Wanted" + name));
                const bool listed = !discovery.getServices().empty();
                const bool removed = discovery.removeService(name);
                failures += added && searched && listed && removed ? 0 : 1;
            }
        });
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(failures, 0);
}

}  // namespace Nubo::ServiceDiscovery::Testing
