#include "AllocationFault.h"
#include "support/LogCatcher.h"

#include <KELOEMInterfaceLib/ManualDispatcher.h>

#include <Poco/Delegate.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using OEMInterface::AddServiceDiscoveryInterfacePayload;
using OEMInterface::ManualDispatcher;
using OEMInterface::RemoveServiceDiscoveryInterfacePayload;
using OEMInterface::ResponseBindingPtr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

/// Longer than what a string holds without an allocation.
const std::string name = "an-interface-with-a-long-name";
const std::string address = "fd00:1111:2222:3333:4444::1";

/// Counts reports, which takes no memory.
struct Counter
{
    void onAdded(AddServiceDiscoveryInterfacePayload&) { ++added; }
    void onRemoved(RemoveServiceDiscoveryInterfacePayload&) { ++removed; }

    ResponseBindingPtr bindTo(ManualDispatcher& dispatcher)
    {
        return dispatcher.bindResponse(Poco::delegate(this, &Counter::onAdded));
    }

    int added = 0;
    int removed = 0;
};

/// Two delegates for each kind of report.
struct Scene
{
    ManualDispatcher dispatcher;
    Counter one;
    Counter other;
    ResponseBindingPtr bindings[4] = {
        dispatcher.bindResponse(Poco::delegate(&one, &Counter::onAdded)),
        dispatcher.bindResponse(Poco::delegate(&other, &Counter::onAdded)),
        dispatcher.bindResponse(Poco::delegate(&one, &Counter::onRemoved)),
        dispatcher.bindResponse(Poco::delegate(&other, &Counter::onRemoved)),
    };
};

}  // namespace

TEST(LinuxDispatcherMemoryTest, AdditionThatFailsChangesNothingAndCanBeRepeated)
{
    const std::size_t failures = withEachAllocationFailing([](AllocationFault& fault) {
        Scene scene;

        const bool hasThrown = fault.strikes([&] { scene.dispatcher.addInterface(name, address); });

        EXPECT_EQ(scene.one.added, hasThrown ? 0 : 1);
        EXPECT_EQ(scene.other.added, scene.one.added);
        EXPECT_THAT(scene.dispatcher.interfaces(), SizeIs(scene.one.added));
        if (hasThrown)
            scene.dispatcher.addInterface(name, address);
        EXPECT_EQ(scene.one.added, 1);
        EXPECT_EQ(scene.other.added, 1);
        EXPECT_THAT(scene.dispatcher.interfaces(), SizeIs(1));
    });

    EXPECT_GT(failures, 0u);
}

TEST(LinuxDispatcherMemoryTest, RemovalNeedsNoMemory)
{
    const std::size_t failures = withEachAllocationFailing([](AllocationFault& fault) {
        Scene scene;
        scene.dispatcher.addInterface(name, address);

        EXPECT_FALSE(fault.strikes([&] { scene.dispatcher.removeInterface(name, address); }));

        EXPECT_EQ(scene.one.removed, 1);
        EXPECT_EQ(scene.other.removed, 1);
        EXPECT_THAT(scene.dispatcher.interfaces(), IsEmpty());
    });

    EXPECT_EQ(failures, 0u);
}

TEST(LinuxDispatcherMemoryTest, EndOfABindingNeedsNoMemory)
{
    const std::size_t failures = withEachAllocationFailing([](AllocationFault& fault) {
        Scene scene;

        EXPECT_FALSE(fault.strikes([&] { scene.bindings[0].reset(); }));

        scene.dispatcher.addInterface(name, address);
        EXPECT_EQ(scene.one.added, 0);
        EXPECT_EQ(scene.other.added, 1);
    });

    EXPECT_EQ(failures, 0u);
}

TEST(LinuxDispatcherMemoryTest, DelegateIsBoundWithAllStandingInterfacesOrNotAtAll)
{
    const std::size_t failures = withEachAllocationFailing([](AllocationFault& fault) {
        ManualDispatcher dispatcher;
        dispatcher.addInterface(name, address);
        dispatcher.addInterface(name + "2", address);
        Counter counter;
        ResponseBindingPtr binding;

        const bool hasThrown = fault.strikes([&] { binding = counter.bindTo(dispatcher); });

        EXPECT_EQ(counter.added, hasThrown ? 0 : 2);
        dispatcher.addInterface(name + "3", address);
        EXPECT_EQ(counter.added, hasThrown ? 0 : 3);
    });

    EXPECT_GT(failures, 0u);
}

TEST(LinuxDispatcherMemoryTest, DelegateThatFindsNoMemoryCostsNobodyAReport)
{
    struct
    {
        void onAdded(AddServiceDiscoveryInterfacePayload&) { throw std::bad_alloc(); }
    } throwing;
    const LogCatcher log;
    ManualDispatcher dispatcher;
    const auto binding = dispatcher.bindResponse(
        Poco::delegate(&throwing, &std::remove_reference_t<decltype(throwing)>::onAdded));
    Counter counter;
    const ResponseBindingPtr other = counter.bindTo(dispatcher);
    int rounds = 0;
    dispatcher.addInterface(name, address);

    withEachAllocationFailing([&](AllocationFault& fault) {
        EXPECT_FALSE(fault.strikes([&] { dispatcher.addInterface(name, address); })) << "nothing is new";
        ++rounds;
    });

    EXPECT_EQ(counter.added, 1 + rounds);
    EXPECT_GT(rounds, 1) << "the log takes memory";
}

TEST(LinuxDispatcherMemoryTest, EntryOfTheEventMemoryIsWrittenWholeOrNotAtAll)
{
    const std::size_t failures = withEachAllocationFailing([](AllocationFault& fault) {
        const LogCatcher log;
        ManualDispatcher dispatcher;

        const bool hasThrown = fault.strikes([&] {
            dispatcher.callLogEvent("a service with a long name", "a protocol with a long name",
                                    address.c_str(), 80);
        });

        EXPECT_THAT(dispatcher.logEntries(), SizeIs(hasThrown ? 0 : 1));
        EXPECT_TRUE(!hasThrown || log.lines().empty());
    });

    EXPECT_GT(failures, 0u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
