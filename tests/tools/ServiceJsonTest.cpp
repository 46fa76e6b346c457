#include "services/ServiceEntry.h"
#include "services/ServiceJson.h"
#include "unit/ServiceEvent.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace NuboSd::Testing {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::OptionL4Protocol;

namespace {

ServiceEvent event()
{
    ServiceEvent event{ServiceEvent::Kind::Discovered, {}, Poco::Timestamp(1'000'000)};
    event.service.setName("Media");
    event.service.setVersions({"1.2.0", "~1.3.0"});
    event.service.setCategories({"audio"});
    event.service.setIpAddress(Poco::Net::IPAddress("fd00::1"));
    event.service.setPort(8080);
    event.service.setL4Proto(OptionL4Protocol::UDP);
    event.service.setLocalUuid("1");
    event.service.setUri("http://elsewhere/");
    return event;
}

constexpr auto facts =
    R"("event":"discovered","uuid":"1","name":"Media","versions":["1.2.0","~1.3.0"],"categories":["audio"],)"
    R"("address":"fd00::1","port":8080,"protocol":"udp","uri":"http://elsewhere/"})";

}  // namespace

TEST(ServiceJsonTest, EventHasTheKeysOfItsServiceInTheirOrder)
{
    EXPECT_EQ(eventJson(event(), false).dump(), std::string("{") + facts);
}

TEST(ServiceJsonTest, TimeIsTheFirstKeyIfItIsWanted)
{
    EXPECT_EQ(eventJson(event(), true).dump(),
              std::string(R"({"time":"1970-01-01T00:00:01.000000Z",)") + facts);
}

TEST(ServiceJsonTest, EntryOfADescriptionDescribesItAgain)
{
    const NuboServiceDescription service = event().service;

    const NuboServiceDescription described =
        ServiceEntry::of(service).describe(Poco::Net::IPAddress("fd00::7"));

    EXPECT_EQ(described.getLocalUuid(), "1");
    EXPECT_EQ(described.getName(), "Media");
    EXPECT_EQ(described.getVersions(), service.getVersions());
    EXPECT_EQ(described.getCategories(), service.getCategories());
    EXPECT_EQ(described.getIpAddressString(), "fd00::1");
    EXPECT_EQ(described.getPort(), 8080);
    EXPECT_EQ(described.getL4Proto(), OptionL4Protocol::UDP);
    EXPECT_EQ(described.getUri(), "http://elsewhere/");
}

}  // namespace NuboSd::Testing
