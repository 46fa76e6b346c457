#include "InterfaceFixture.h"
#include "support/Process.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Reports from within log lines, and reports that cannot be used.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace {

using InterfaceReportsTest = InterfaceFixture;

}  // namespace

TEST_F(InterfaceReportsTest, ReportsFromWithinALineOfTheLogAreHandledAfterIt)
{
    network.link("eth1", "fd01::1");
    unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    log.onLine([&](const std::string& line) {
        if (line != "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".")
            return;
        unit.platform.dispatcher().removeInterface("eth1", "fd01::1");
        unit.platform.dispatcher().addInterface("eth2", "fd02::1");
    });
    network.link("eth2", "fd02::1");

    unit.platform.dispatcher().addInterface("eth0", globalAddress);

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth2"));
}

TEST_F(InterfaceReportsTest, ReportFromWithinALineOfTheRetryingThreadIsHandledAfterIt)
{
    network.link("eth1", "fd01::1");
    network.here.ip("address delete fd00::1/64 dev eth0");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    ASSERT_TRUE(start());
    log.onLine([&](const std::string& line) {
        if (line == "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".")
            unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    });

    network.here.addAddress("eth0", "fd00::1/64");

    EXPECT_TRUE(eventually([] { return joinedInterfaces().size() == 2; }));
}

TEST_F(InterfaceReportsTest, ReportFromWithinALineOfTheStopIsHandledAfterIt)
{
    network.link("eth1", "fd01::1");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    ASSERT_TRUE(start());
    log.onLine([&](const std::string& line) {
        if (line == "Notice: ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.")
            unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    });

    unit.hub.stop();
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth1"));
    ASSERT_TRUE(start());

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
}

TEST_F(InterfaceReportsTest, ReportsFromWithinEveryLineOfTheLogComeToAnEnd)
{
    OEMInterface::AddServiceDiscoveryInterfacePayload report{
        {"eth0", globalAddress}};  // needs no listing each time
    log.onLine([&](const std::string&) { unit.hub.onInterfaceAdded(report); });

    unit.hub.onInterfaceAdded(report);
    unit.hub.onInterfaceAdded(report);
    log.onLine(nullptr);

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SDCommunicationHub - 1026 reports of interfaces are dropped: 1024 others "
                            "were made from within lines of the log.",
                            "Error: SDCommunicationHub - 1027 reports of interfaces are dropped: 1024 others "
                            "were made from within lines of the log."))
        << "the second time with the one from the first of these lines";
}

/// The report has the interfaces listed, and what has gone is let go and waited for.
TEST_F(InterfaceReportsTest, InterfaceThatGoesBeforeAReportThatCannotBeUsedIsWaitedFor)
{
    ASSERT_TRUE(start());
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    network.here.ip("link delete eth0");
    OEMInterface::AddServiceDiscoveryInterfacePayload report{{"eth1", "no address"}};
    EXPECT_TRUE(eventually([&] {
        reportAdded(unit.hub, report);
        return joinedInterfaces().empty();
    }));
    reportAdded(unit.hub, report);

    network.link("eth0", globalAddress, "fd00::2");

    EXPECT_TRUE(eventually([] { return joinedInterfaces().size() == 1; }));
}

TEST_F(InterfaceReportsTest, RemovalWithAnAddressThatCannotBeParsedChangesNothing)
{
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    log.clear();
    OEMInterface::RemoveServiceDiscoveryInterfacePayload report{{"eth0", "nonsense"}};

    reportRemoved(unit.hub, report);

    EXPECT_THAT(log.lines(),
                ElementsAre(StartsWith("Error: ServiceDiscovery failed to leave IPv6 Multicast Group "
                                       "on Interface \"eth0\" with IP \"nonsense\": "),
                            StartsWith("Error: ServiceDiscovery failed to remove Interface \"eth0\" "
                                       "with IP \"nonsense\" for sending: ")));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(InterfaceReportsTest, ReportWithoutANameOrAnAddressIsAnErrorAndChangesNothing)
{
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    log.clear();
    OEMInterface::AddServiceDiscoveryInterfacePayload nameless{{nullptr, globalAddress}};
    OEMInterface::RemoveServiceDiscoveryInterfacePayload addressless{{"eth0", nullptr}};

    EXPECT_NO_THROW(unit.hub.onInterfaceAdded(nameless));
    EXPECT_NO_THROW(unit.hub.onInterfaceRemoved(addressless));

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Error: SDCommunicationHub - an interface without a name or an address was reported.",
                    "Error: SDCommunicationHub - an interface without a name or an address was taken back."));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
