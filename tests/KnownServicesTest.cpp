#include "KnownServices.h"
#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/Platform.h"
#include "support/Waiting.h"

#include <Poco/Delegate.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Payload = ServiceListEventPayload;

/// A facade whose events the test raises.
struct KnownServicesTest : ::testing::Test
{
    /// Returns the identifier that the service got.
    std::string discover(const NuboServiceDescription& description)
    {
        Payload payload(Payload::SERVICE_DISCOVERED, &description);
        discovery.ServiceListChanged.notify(&discovery, payload);
        return payload.getLocalUuid();
    }
    std::string discover(const std::string& name, const std::string& address = "fd00::2")
    {
        return discover(describe(name, address));
    }

    void lose(const std::string& uuid)
    {
        const NuboServiceDescription description = describe("Any");
        Payload payload(Payload::SERVICE_GONE, &description, uuid);
        discovery.ServiceListChanged.notify(&discovery, payload);
    }

    std::vector<std::string> known() const
    {
        std::vector<std::string> lines;
        for (const auto& service : *services->snapshot())
            lines.push_back(service->uuid + " " + service->description.getName() + " " +
                            service->description.getIpAddressString());
        return lines;
    }

    PlatformScope platform;
    ServiceDiscovery discovery;
    std::optional<KnownServices> services{std::in_place, discovery};
};

/// A subscriber of its own, which throws.
struct Thrower
{
    void onServiceListChanged(Payload&) { throw std::runtime_error("no"); }
};

}  // namespace

TEST_F(KnownServicesTest, DiscoveredServicesAreNumberedAndListedByName)
{
    EXPECT_EQ(discover("Navi"), "service-1");
    EXPECT_EQ(discover("Media", "fd00::3"), "service-2");
    EXPECT_EQ(discover("Media", "fd00::2"), "service-3");

    EXPECT_THAT(known(),
                ElementsAre("service-3 Media fd00::2", "service-2 Media fd00::3", "service-1 Navi fd00::2"));
    EXPECT_EQ(services->size(), 3u);
}

TEST_F(KnownServicesTest, DescriptionCarriesTheIdentifier)
{
    const std::string uuid = discover("Navi");

    const auto service = services->find(uuid);
    ASSERT_TRUE(service);
    EXPECT_EQ(service->uuid, "service-1");
    EXPECT_EQ(service->description.getLocalUuid(), "service-1");
    EXPECT_EQ(service->description.getName(), "Navi");
    EXPECT_EQ(service->revision, 1u);
}

TEST_F(KnownServicesTest, ServiceThatIsGoneIsForgotten)
{
    const std::string navi = discover("Navi");
    discover("Media");

    lose(navi);

    EXPECT_THAT(known(), ElementsAre("service-2 Media fd00::2"));
    EXPECT_FALSE(services->find(navi));
}

TEST_F(KnownServicesTest, LossOfAnUnknownServiceChangesNothing)
{
    discover("Navi");

    lose("service-7");

    EXPECT_THAT(known(), ElementsAre("service-1 Navi fd00::2"));
    EXPECT_EQ(services->revision(), 1u);
}

TEST_F(KnownServicesTest, ServicesOfANameAreFound)
{
    for (const char* name : {"A", "B", "B", "C"}) {
        static int unit = 0;
        discover(name, "fd00::" + std::to_string(++unit));
    }
    const auto snapshot = services->snapshot();

    const auto range = snapshot->ofName("B");
    ASSERT_EQ(range.size(), 2u);
    for (const auto& service : range)
        EXPECT_EQ(service->description.getName(), "B");
    EXPECT_TRUE(snapshot->ofName("D").empty());
    EXPECT_TRUE(snapshot->ofName("").empty());
}

TEST_F(KnownServicesTest, InstancesDifferByAddressPortAndProtocol)
{
    NuboServiceDescription description = describe("Media", "fd00::2");
    discover(description);
    description.setPort(8081);
    discover(description);
    description.setL4Proto(OptionL4Protocol::UDP);
    discover(description);

    EXPECT_EQ(services->size(), 3u);
}

TEST_F(KnownServicesTest, SnapshotStaysAsItWas)
{
    const std::string uuid = discover("Navi");
    const auto before = services->snapshot();

    lose(uuid);
    discover("Media");

    ASSERT_EQ(before->size(), 1u);
    EXPECT_EQ((*before->begin())->description.getName(), "Navi");
    EXPECT_EQ(before->revision(), 1u);
    EXPECT_EQ(services->snapshot()->revision(), 3u);
}

TEST_F(KnownServicesTest, SnapshotIsMadeAnewOnlyAfterAChange)
{
    discover("Navi");
    const auto one = services->snapshot();
    const auto other = services->snapshot();
    discover("Media");

    EXPECT_EQ(one, other);
    EXPECT_NE(services->snapshot(), one);
}

TEST_F(KnownServicesTest, EachChangeCountsInTheRevision)
{
    EXPECT_EQ(services->revision(), 0u);
    const std::string uuid = discover("Navi");
    EXPECT_EQ(services->revision(), 1u);
    lose(uuid);
    EXPECT_EQ(services->revision(), 2u);
}

TEST_F(KnownServicesTest, WaitingEndsWithAChange)
{
    std::atomic<std::uint64_t> seen{0};
    std::thread waiting([&] { seen = services->waitForChange(0, seconds(30)); });

    discover("Navi");
    waiting.join();

    EXPECT_EQ(seen, 1u);
}

TEST_F(KnownServicesTest, WaitingForWhatHasChangedAlreadyEndsAtOnce)
{
    discover("Navi");

    EXPECT_EQ(services->waitForChange(0, seconds(30)), 1u);
}

TEST_F(KnownServicesTest, WaitingInVainEndsWithTheSameRevision)
{
    discover("Navi");

    EXPECT_EQ(services->waitForChange(1, milliseconds(1)), 1u);
}

TEST_F(KnownServicesTest, CallerMayIdentify)
{
    services.reset();
    services.emplace(discovery, [](const NuboServiceDescription& description) {
        return "id-of-" + description.getName();
    });

    EXPECT_EQ(discover("Navi"), "id-of-Navi");
    EXPECT_EQ(services->find("id-of-Navi")->description.getLocalUuid(), "id-of-Navi");
}

TEST_F(KnownServicesTest, ServiceWithoutAnIdentifierIsNotTakenIn)
{
    services.reset();
    services.emplace(discovery, [](const NuboServiceDescription&) { return std::string(); });

    EXPECT_EQ(discover("Navi"), "");
    EXPECT_THAT(known(), IsEmpty());
    EXPECT_EQ(services->revision(), 0u);
}

TEST_F(KnownServicesTest, IdentifierOfAnotherServiceIsNotTaken)
{
    services.reset();
    services.emplace(discovery, [](const NuboServiceDescription&) { return std::string("same"); });
    discover("Navi");

    EXPECT_EQ(discover("Media"), "");
    EXPECT_THAT(known(), ElementsAre("same Navi fd00::2"));
}

TEST_F(KnownServicesTest, ServiceThatTheEngineLetGoSilentlyIsReplaced)
{
    Thrower thrower;
    discovery.ServiceListChanged += Poco::delegate(&thrower, &Thrower::onServiceListChanged);
    EXPECT_THROW(discover("Navi"), std::runtime_error);
    discovery.ServiceListChanged -= Poco::delegate(&thrower, &Thrower::onServiceListChanged);

    EXPECT_EQ(discover("Navi"), "service-2");

    EXPECT_THAT(known(), ElementsAre("service-2 Navi fd00::2"));
    EXPECT_FALSE(services->find("service-1"));
}

TEST_F(KnownServicesTest, ServiceThatTheEngineLetGoSilentlyMayKeepItsIdentifier)
{
    services.reset();
    services.emplace(discovery, [](const NuboServiceDescription& description) {
        return "id-of-" + description.getName();
    });
    discover("Navi");

    EXPECT_EQ(discover("Navi"), "id-of-Navi");

    EXPECT_THAT(known(), ElementsAre("id-of-Navi Navi fd00::2"));
    EXPECT_TRUE(services->find("id-of-Navi"));
    EXPECT_EQ(services->revision(), 2u);
}

TEST_F(KnownServicesTest, IdentifyMayAskTheTable)
{
    services.reset();
    services.emplace(discovery, [this](const NuboServiceDescription&) {
        return "after-" + std::to_string(services->size());
    });

    EXPECT_EQ(discover("Navi"), "after-0");
    EXPECT_EQ(discover("Media"), "after-1");
}

TEST_F(KnownServicesTest, AfterItsEndNothingIsIdentified)
{
    services.reset();

    EXPECT_EQ(discover("Navi"), "");
}

TEST_F(KnownServicesTest, EachTableHasItsOwnPlaceInTheEvent)
{
    KnownServices other(discovery);
    services.reset();

    EXPECT_EQ(discover("Navi"), "service-1");
    EXPECT_EQ(other.size(), 1u);
}

TEST_F(KnownServicesTest, EventThatIsBeingDeliveredDoesNotMindItsEnd)
{
    std::atomic<bool> isIdentifying{false};
    std::atomic<bool> isGone{false};
    services.reset();
    services.emplace(discovery, [&](const NuboServiceDescription&) {
        isIdentifying = true;
        eventually([&] { return isGone.load(); });
        return std::string("late");
    });
    std::thread event([&] { discover("Navi"); });
    eventually([&] { return isIdentifying.load(); });

    services.reset();
    isGone = true;
    event.join();
}

/// Eight readers see every state whole while services come and go 100,000 times.
TEST_F(KnownServicesTest, ReadersSeeWholeStatesDuringAStormOfChanges)
{
    constexpr int readers = 8;
    constexpr int changes = 100000;
    constexpr std::size_t most = 64;
    std::atomic<bool> isOver{false};
    std::atomic<int> faults{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < readers; ++i)
        threads.emplace_back([&] {
            std::uint64_t seen = 0;
            while (!isOver) {
                const std::uint64_t revision = services->waitForChange(seen, milliseconds(10));
                const auto snapshot = services->snapshot();
                const bool isOrdered = std::is_sorted(
                    snapshot->begin(), snapshot->end(), [](const auto& one, const auto& another) {
                        return one->description.getName() < another->description.getName();
                    });
                const bool isWhole = snapshot->revision() >= revision && revision >= seen &&
                                     snapshot->size() <= most && isOrdered;
                if (!snapshot->empty())
                    services->find((*snapshot->begin())->uuid);
                faults += isWhole ? 0 : 1;
                seen = snapshot->revision();
            }
        });

    std::vector<std::string> present;
    std::vector<NuboServiceDescription> descriptions;
    for (std::size_t i = 0; i < most; ++i)
        descriptions.push_back(describe("Service" + std::to_string(i)));
    for (int change = 0; change < changes;) {
        for (std::size_t i = 0; i < most; ++i, ++change)
            present.push_back(discover(descriptions[i]));
        for (const std::string& uuid : present)
            lose(uuid), ++change;
        present.clear();
    }
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(faults, 0);
    EXPECT_GE(services->revision(), static_cast<std::uint64_t>(changes));
    EXPECT_THAT(known(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
