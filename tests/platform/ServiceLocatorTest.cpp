#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/SharedPtr.h>

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

struct Service
{
    virtual ~Service() = default;
    virtual int number() const { return 1; }
};

struct OtherService
{};

struct DerivedService : Service
{
    int number() const override { return 2; }
};

/// Uses the locator when it ends, as a service may that withdraws what it offered.
struct WithdrawingService
{
    explicit WithdrawingService(ServiceLocator& owner) : locator(owner) {}
    ~WithdrawingService() { locator.remove(typeid(OtherService)); }

    ServiceLocator& locator;
};

}  // namespace

TEST(ServiceLocatorTest, NothingIsFoundBeforeItIsAdded)
{
    const ServiceLocator locator;
    Poco::Any found = std::string("as before");

    EXPECT_FALSE(locator.find(&typeid(Service), found));

    EXPECT_EQ(Poco::AnyCast<std::string>(found), "as before");
}

TEST(ServiceLocatorTest, ServiceIsFoundUnderItsType)
{
    ServiceLocator locator;
    locator.add(typeid(Service), Poco::SharedPtr<Service>(new DerivedService));
    Poco::Any found;
    Poco::Any other;

    EXPECT_TRUE(locator.find(&typeid(Service), found));
    EXPECT_FALSE(locator.find(&typeid(DerivedService), other)) << "it was added under its base";

    EXPECT_EQ(Poco::AnyCast<Poco::SharedPtr<Service>>(found)->number(), 2);
}

TEST(ServiceLocatorTest, NoTypeFindsNothing)
{
    ServiceLocator locator;
    locator.add(typeid(Service), 1);
    Poco::Any found = 7;

    EXPECT_FALSE(locator.find(nullptr, found));
    EXPECT_EQ(Poco::AnyCast<int>(found), 7);
}

TEST(ServiceLocatorTest, SecondServiceOfATypeReplacesTheFirst)
{
    ServiceLocator locator;
    locator.add(typeid(Service), 1);
    locator.add(typeid(OtherService), 2);
    locator.add(typeid(Service), 3);
    Poco::Any found;

    EXPECT_TRUE(locator.find(&typeid(Service), found));
    EXPECT_EQ(Poco::AnyCast<int>(found), 3);
    EXPECT_TRUE(locator.find(&typeid(OtherService), found));
    EXPECT_EQ(Poco::AnyCast<int>(found), 2);
}

TEST(ServiceLocatorTest, RemovedServiceIsNotFound)
{
    ServiceLocator locator;
    locator.add(typeid(Service), 1);
    locator.add(typeid(OtherService), 2);
    Poco::Any found;

    locator.remove(typeid(Service));
    locator.remove(typeid(Service));

    EXPECT_FALSE(locator.find(&typeid(Service), found));
    EXPECT_TRUE(locator.find(&typeid(OtherService), found));
}

TEST(ServiceLocatorTest, NoServiceIsFoundAfterAllAreTakenBack)
{
    ServiceLocator locator;
    locator.add(typeid(Service), 1);
    locator.add(typeid(OtherService), 2);
    Poco::Any found;

    locator.clear();
    EXPECT_FALSE(locator.find(&typeid(Service), found));
    EXPECT_FALSE(locator.find(&typeid(OtherService), found));

    locator.add(typeid(Service), 3);
    EXPECT_TRUE(locator.find(&typeid(Service), found));
    EXPECT_EQ(Poco::AnyCast<int>(found), 3);
}

TEST(ServiceLocatorTest, FoundServiceOutlivesItsRemoval)
{
    ServiceLocator locator;
    locator.add(typeid(Service), Poco::SharedPtr<Service>(new Service));
    Poco::Any found;
    locator.find(&typeid(Service), found);

    locator.remove(typeid(Service));

    EXPECT_EQ(Poco::AnyCast<Poco::SharedPtr<Service>>(found)->number(), 1);
}

TEST(ServiceLocatorTest, ServiceMayUseTheLocatorWhileItEnds)
{
    ServiceLocator locator;
    const auto add = [&] {
        locator.add(typeid(Service), Poco::SharedPtr<WithdrawingService>(new WithdrawingService(locator)));
        locator.add(typeid(OtherService), 2);
    };
    Poco::Any found;

    add();
    locator.remove(typeid(Service));
    EXPECT_FALSE(locator.find(&typeid(OtherService), found));

    add();
    locator.add(typeid(Service), 1);
    EXPECT_FALSE(locator.find(&typeid(OtherService), found));

    add();
    locator.clear();
    EXPECT_FALSE(locator.find(&typeid(OtherService), found));
}

TEST(ServiceLocatorTest, ProcessHasOneLocator)
{
    EXPECT_EQ(&ApplicationServices::getLocator(), &ApplicationServices::getLocator());
}

TEST(ServiceLocatorTest, ThreadsMayUseItAtOnce)
{
    ServiceLocator locator;
    std::atomic<bool> isOver{false};

    std::thread provider([&] {
        for (int i = 0; i < 1000; ++i) {
            locator.add(typeid(Service), Poco::SharedPtr<Service>(new Service));
            locator.remove(typeid(Service));
        }
        isOver = true;
    });
    while (!isOver) {
        Poco::Any found;
        if (locator.find(&typeid(Service), found)) {
            EXPECT_EQ(Poco::AnyCast<Poco::SharedPtr<Service>>(found)->number(), 1);
        }
    }
    provider.join();
}

}  // namespace Nubo::ServiceDiscovery::Testing
