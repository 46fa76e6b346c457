#include "Multicast/InterfaceListing.h"
#include "SenderFixture.h"
#include "support/Process.h"
#include "support/UnsuitableAddress.h"
#include "support/Waiting.h"

#include <Poco/Net/DatagramSocket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using SenderInterfacesTest = SenderFixture;

/// While it exists, no port is available for that address.
class NoPorts
{
public:
    explicit NoPorts(const std::string& address)
    {
        setRange("30000 30000");
        m_holder.bind(SocketAddress(address, 30000));
    }
    ~NoPorts() { setRange("32768 60999"); }

    NoPorts(const NoPorts&) = delete;
    NoPorts& operator=(const NoPorts&) = delete;

private:
    static void setRange(const std::string& range)
    {
        std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << range;
    }

    Poco::Net::DatagramSocket m_holder{SocketAddress::IPv6};
};

/// eth0 has been reported with an address that cannot be used yet: duplicate address detection is running.
struct TentativeSenderTest : SenderFixture
{
    TentativeSenderTest() { sender->addInterface_byIP("eth0", "fd00::1"); }

    Listener addTentativeInterface() const
    {
        network.link("eth0");
        network.here.setIPv6("eth0/accept_dad", "1");
        network.here.setIPv6("eth0/dad_transmits", "100");
        network.here.ip("address add fd00::1/64 dev eth0");
        return Listener(network.there, "eth0");
    }

    /// Makes the address usable.
    void passCheck() const
    {
        network.here.ip("address delete fd00::1/64 dev eth0");
        network.here.addAddress("eth0", "fd00::1/64");
    }

    /// Tries again to add the interface, as the engine does until it can be used.
    Multicast::Outcome retry()
    {
        return sender->add("eth0", "fd00::1", *Multicast::InterfaceListing::take(),
                           Multicast::Attempt::Again);
    }

    Listener listener = addTentativeInterface();
};

struct RefusedAddressTest : SenderFixture, ::testing::WithParamInterface<UnsuitableAddress>
{};

}  // namespace

TEST_F(SenderInterfacesTest, AddedInterfaceIsNoted)
{
    addInterface("eth0", "fd00::1");

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::1\" for sending."));
}

TEST_P(RefusedAddressTest, IsSkippedWithAWarning)
{
    network.link("eth0", "fd00::1");

    sender->addInterface_byIP("eth0", GetParam().ip);

    EXPECT_THAT(log.lines(),
                ElementsAre(std::string("Warning: ServiceDiscovery skipped adding Interface \"eth0\" with "
                                        "IP \"") +
                            GetParam().ip + "\" for sending: not an appropriate IP."));
    EXPECT_FALSE(send({"01"}));
}

INSTANTIATE_TEST_SUITE_P(Addresses, RefusedAddressTest, ::testing::ValuesIn(unsuitableAddresses),
                         [](const auto& row) { return row.param.name; });

TEST_F(SenderInterfacesTest, SecondAddressOfAnAddedInterfaceIsRefused)
{
    addInterface("eth0", "fd00::1");
    network.here.addAddress("eth0", "fd00::2/64");
    Listener listener(network.there, "eth0");
    log.clear();

    sender->addInterface_byIP("eth0", "fd00::2");

    EXPECT_THAT(log.lines(), ElementsAre("Warning: ServiceDiscovery failed to add Interface \"eth0\" with IP "
                                         "\"fd00::2\" for sending: already added \"eth0"));
    EXPECT_TRUE(send({"01"}));
    EXPECT_THAT(listener.bytes(), ElementsAre("01")) << "one socket an interface";
}

TEST_F(SenderInterfacesTest, InterfaceWhoseSocketCannotBeOpenedIsReportedAndNotAdded)
{
    network.link("eth0", "fd00::1");
    {
        const NoPorts exhausted("fd00::1");
        sender->addInterface_byIP("eth0", "fd00::1");
    }
    EXPECT_FALSE(send({"01"}));
    sender->addInterface_byIP("eth0", "fd00::1");

    EXPECT_TRUE(send({"02"}));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: ServiceDiscovery failed to add Interface \"eth0\" with IP "
                            "\"fd00::1\" for sending: Net Exception: Address already in use: [fd00::1]:0",
                            noInterfaces));
    EXPECT_THAT(log.warnings(), IsEmpty());
}

TEST_F(TentativeSenderTest, AddressThatIsBeingCheckedIsUsedWhenItCanBe)
{
    EXPECT_FALSE(send({"01"}));
    EXPECT_EQ(retry(), Multicast::Outcome::Pending);
    EXPECT_FALSE(send({"01"}));
    passCheck();

    EXPECT_TRUE(eventually([&] { return retry() == Multicast::Outcome::InUse; }));
    EXPECT_TRUE(send({"02"}));
    EXPECT_TRUE(listener.hears(1));
    EXPECT_EQ(listener.datagrams().front().source, "fd00::1");
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(),
                ElementsAre("Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::1\" for "
                            "sending.",
                            "Notice: ServiceDiscovery can use Interface \"eth0\" with IP \"fd00::1\" for "
                            "sending."));
    EXPECT_EQ(log.count("Debug: ServiceDiscovery waits until Interface \"eth0\" with IP \"fd00::1\" can be "
                        "used for sending."),
              1u);
    EXPECT_EQ(log.count("Debug: MulticastSender sends nothing until an interface can be used."),
              log.debugs().size() - 1);
}

TEST_F(TentativeSenderTest, AddressThatGoesWhileItIsBeingCheckedIsNotAwaited)
{
    network.here.ip("address delete fd00::1/64 dev eth0");

    EXPECT_EQ(retry(), Multicast::Outcome::Pending);

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
    network.here.addAddress("eth0", "fd00::1/64");
    EXPECT_EQ(retry(), Multicast::Outcome::InUse);
}

TEST_F(TentativeSenderTest, RemovalEndsTheWaiting)
{
    sender->removeInterface_byIP("eth0", "fd00::1");

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces)) << "none for the removal";
}

TEST_F(TentativeSenderTest, RemovalOfEverythingEndsTheWaiting)
{
    sender->removeInterface_byIP("", "::");

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
    log.clear();
    sender->removeInterface_byIP("eth0", "fd00::1");
    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: Failed to remove Interface \"eth0\" with IP \"fd00::1\" for "
                            "sending: not connected(?)"));
}

TEST_F(TentativeSenderTest, OtherInterfacesAreUsedMeanwhile)
{
    Listener other = addListenedInterface("eth1", "fd01::1");

    EXPECT_TRUE(send({"01"}));

    EXPECT_TRUE(other.hears(1));
    EXPECT_THAT(listener.bytes(), IsEmpty());
}

TEST_F(TentativeSenderTest, InterfaceThatIsAddedMeanwhileIsNotAddedTwice)
{
    passCheck();
    sender->addInterface_byIP("eth0", "fd00::1");

    EXPECT_EQ(retry(), Multicast::Outcome::InUse);
    EXPECT_TRUE(send({"01"}));
    EXPECT_TRUE(listener.hears(1));
    EXPECT_EQ(listener.datagrams().size(), 1u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(TentativeSenderTest, AttemptThatFailsForAnotherReasonIsNotTheLast)
{
    passCheck();
    {
        const NoPorts exhausted("fd00::1");
        EXPECT_EQ(retry(), Multicast::Outcome::Pending);
    }

    EXPECT_EQ(retry(), Multicast::Outcome::InUse);
    EXPECT_THAT(log.complaints(), IsEmpty()) << "only the report itself is worth a line";
}

TEST_F(SenderInterfacesTest, RemovedInterfaceIsNotedAndGetsNothingMore)
{
    Listener listener0 = addListenedInterface("eth0", "fd01::1");
    Listener listener1 = addListenedInterface("eth1", "fd02::1");
    log.clear();

    sender->removeInterface_byIP("eth0", "fd01::1");
    EXPECT_TRUE(send({"aa"}));

    EXPECT_THAT(log.lines(), ElementsAre("Notice: ServiceDiscovery removing Interface \"eth0\" for given IP "
                                         "\"fd01::1\" for sending."));
    EXPECT_THAT(listener0.bytes(), IsEmpty());
    EXPECT_THAT(listener1.bytes(), ElementsAre("aa"));
}

TEST_F(SenderInterfacesTest, RemovedInterfaceCanBeAddedAgain)
{
    Listener listener = addListenedInterface("eth0", "fd01::1");

    sender->removeInterface_byIP("eth0", "fd01::1");
    sender->addInterface_byIP("eth0", "fd01::1");
    EXPECT_TRUE(send({"aa"}));

    EXPECT_THAT(listener.bytes(), ElementsAre("aa"));
}

TEST_F(SenderInterfacesTest, RemovalClosesTheSocket)
{
    const std::size_t before = openDescriptors();
    addInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");
    addInterface("eth2", "fd00::1");
    EXPECT_EQ(openDescriptors(), before + 3);

    sender->removeInterface_byIP("eth0", "fd01::1");
    EXPECT_EQ(openDescriptors(), before + 2);
    sender->removeInterface_byIP("", "::");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SenderInterfacesTest, KeepsOnlyWhatIsThereUnderOneOfTheNames)
{
    const std::size_t before = openDescriptors();
    for (const std::string number : {"0", "1", "2", "3"})
        addInterface("eth" + number, "fd0" + number + "::1");
    network.here.ip("link delete eth1");
    network.here.ip("link set eth2 down");
    network.here.ip("link set eth2 name eth9 up");

    sender->keepOnly({"eth0", "eth1", "eth2", "eth9"}, *Multicast::InterfaceListing::take());

    EXPECT_EQ(openDescriptors(), before + 1);
    Listener listener(network.there, "eth0");
    EXPECT_TRUE(send({"01"}));
    EXPECT_TRUE(listener.hears(1));
}

TEST_F(SenderInterfacesTest, AddressThatTheInterfaceHasLostGivesWayToAReportedOne)
{
    const std::size_t before = openDescriptors();
    addInterface("eth0", "fd00::1");
    network.here.ip("address delete fd00::1/64 dev eth0");
    network.here.addAddress("eth0", "fd00::9/64");
    log.clear();

    sender->addInterface_byIP("eth0", "fd00::9");

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::9\" for sending."));
    EXPECT_EQ(openDescriptors(), before + 1);
    Listener listener(network.there, "eth0");
    EXPECT_EQ(ownAddress(listener).host(), IPAddress("fd00::9"));
    EXPECT_TRUE(sender->isOwnAddress(IPAddress("fd00::9")));
}

TEST_F(SenderInterfacesTest, AddressThatTheInterfaceHasDoesNotGiveWayToAnother)
{
    addInterface("eth0", "fd00::1");
    network.here.addAddress("eth0", "fd00::9/64");

    sender->addInterface_byIP("eth0", "fd00::9");

    Listener listener(network.there, "eth0");
    EXPECT_EQ(ownAddress(listener).host(), IPAddress("fd00::1"));
}

TEST_F(SenderInterfacesTest, AttemptWithAnInterfaceThatIsStillMissingIsNotLogged)
{
    EXPECT_EQ(sender->add("eth9", "fd00::1", *Multicast::InterfaceListing::take(), Multicast::Attempt::Again),
              Multicast::Outcome::Pending);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TentativeSenderTest, AddressThatIsNotToBeAwaitedAnyLongerIsNot)
{
    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), IsEmpty());

    sender->stopAwaiting("eth0", IPAddress("fd00::1"));

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
}

TEST_F(TentativeSenderTest, AddressIsNotAwaitedOnAnInterfaceThatIsUsedWithAnother)
{
    network.here.addAddress("eth0", "fd00::9/64");
    sender->addInterface_byIP("eth0", "fd00::9");
    retry();
    sender->removeInterface_byIP("eth0", "fd00::9");
    log.clear();

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
}

TEST_F(TentativeSenderTest, AddressOfAnInterfaceThatIsNotKeptIsNotAwaited)
{
    sender->keepOnly({"eth1"}, *Multicast::InterfaceListing::take());

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
}

TEST_F(SenderInterfacesTest, DestructionClosesEverySocket)
{
    const std::size_t before = openDescriptors();
    addInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");

    sender.reset();

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SenderInterfacesTest, ReportsAreHandledOneAfterTheOtherAndNoDatagramThatComesInWaitsForThem)
{
    network.link("eth0", "fd00::1");
    const std::vector<std::function<void()>> reports{
        [&] { sender->addInterface_byIP("eth0", "fd00::1"); },
        [&] { sender->removeInterface_byIP("eth0", "fd00::1"); }};
    std::atomic<int> done{0};
    std::mutex& mutex = sender->m_interfacesMutex;
    mutex.lock();
    std::vector<std::thread> threads;
    for (const std::function<void()>& report : reports)
        threads.emplace_back([&] {
            report();
            ++done;
        });

    EXPECT_FALSE(sender->isOwnOutgoingAddress(SocketAddress("fd00::1", 1)));
    EXPECT_TRUE(keeps([&] { return done == 0; }, std::chrono::milliseconds(50)));
    mutex.unlock();
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(done, 2);
}

}  // namespace Nubo::ServiceDiscovery::Testing
