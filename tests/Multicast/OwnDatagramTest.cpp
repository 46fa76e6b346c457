#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

TEST(OwnDatagramTest, DatagramOfThisUnitThatComesBackOnAnotherPortIsDroppedSilently)
{
    const Namespace here("here");
    const Namespace there("there");
    Segment segment;
    segment.plug(here, "eth0");
    segment.plug(here, "eth1");
    segment.plug(there, "eth0");
    here.addAddress("eth0", "fd00::1/64");
    here.addAddress("eth1", "fd00::2/64");
    there.addAddress("eth0", "fd00::3/64");
    const InNamespace inside(here);
    HubUnit unit;
    unit.platform.dispatcher().addInterface("eth0", "fd00::1");
    unit.platform.dispatcher().addInterface("eth1", "fd00::2");
    ASSERT_TRUE(unit.hub.start(IPAddress("fd00::1")));
    SDService::Ptr service = makeService("Media");
    service->setType(SDService::Type::ANNOUNCED);
    const LogCatcher log;

    unit.hub.announce(service);
    const std::string arrived = "Trace: MulticastReceiver onSocketReadable";
    EXPECT_TRUE(eventually([&] { return log.count(arrived) == 2; })) << "by the other port each";
    EXPECT_THAT(log.complaints(), IsEmpty());
    Speaker speaker(there, "eth0", "fd00::3");
    speaker.send("00"_bytes);
    const std::string ofTheOther = "Trace: SDCommunicationHub::onMessageReceived - message received from " +
                                   speaker.address().toString();
    EXPECT_TRUE(eventually([&] { return log.has(ofTheOther); }));

    EXPECT_THAT(log.traces(), Not(Contains(HasSubstr("from [fd00::1]"))));
    EXPECT_THAT(log.traces(), Not(Contains(HasSubstr("from [fd00::2]"))));
    unit.hub.stop();
}

}  // namespace Nubo::ServiceDiscovery::Testing
