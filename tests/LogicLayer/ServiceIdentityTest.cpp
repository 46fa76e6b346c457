#include "LogicLayer/ServiceIdentity.h"
#include "support/Descriptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

SDService::Ptr makeNumberedService()
{
    SDService::Ptr service = makeService("Media", "fd00::2", 9090);
    service->setType(SDService::Type::DISCOVERED);
    service->setServiceId(0x1234);
    service->setInstanceId(7);
    service->setMajorVersion(3);
    service->setMinorVersion(4);
    return service;
}

}  // namespace

TEST(ServiceIdentityTest, DefaultIsAWildcardInEveryField)
{
    const ServiceIdentity identity;

    EXPECT_EQ(identity.type, SDService::Type::ANY);
    EXPECT_EQ(identity.serviceID, 0xffff);
    EXPECT_EQ(identity.instanceID, 0xffff);
    EXPECT_EQ(identity.majorVersion, 0xff);
    EXPECT_EQ(identity.minorVersion, 0xffffffff);
    EXPECT_TRUE(identity.name.isNull());
    EXPECT_TRUE(identity.ip.isNull());
    EXPECT_TRUE(identity.port.isNull());
    EXPECT_TRUE(identity.l4proto.isNull());
}

TEST(ServiceIdentityTest, IdentityOfARecordNamesItsServiceAndNothingElse)
{
    const ServiceIdentity identity(*makeNumberedService());

    EXPECT_EQ(identity.type, SDService::Type::ANY);
    EXPECT_EQ(identity.serviceID, 0x1234);
    EXPECT_EQ(identity.instanceID, 0xffff);
    EXPECT_EQ(identity.majorVersion, 0xff);
    EXPECT_EQ(identity.minorVersion, 0xffffffff);
    EXPECT_EQ(identity.name, std::string("Media"));
    EXPECT_TRUE(identity.ip.isNull());
    EXPECT_TRUE(identity.port.isNull());
    EXPECT_TRUE(identity.l4proto.isNull());
}

TEST(ServiceIdentityTest, IdentityOfAnInstanceNamesServiceEndpointAndKindWhateverVersionsAndNumber)
{
    const auto identity = ServiceIdentity::ofInstance(*makeNumberedService(), SDService::Type::ANNOUNCED);

    EXPECT_EQ(identity.type, SDService::Type::ANNOUNCED);
    EXPECT_EQ(identity.serviceID, 0xffff);
    EXPECT_EQ(identity.instanceID, 0xffff);
    EXPECT_EQ(identity.majorVersion, 0xff);
    EXPECT_EQ(identity.minorVersion, 0xffffffff);
    EXPECT_EQ(identity.name, std::string("Media"));
    EXPECT_EQ(identity.ip, std::string("fd00::2"));
    EXPECT_EQ(identity.port, static_cast<unsigned short>(9090));
    EXPECT_EQ(identity.l4proto, OptionL4Protocol::TCP);
}

}  // namespace Nubo::ServiceDiscovery::Testing
