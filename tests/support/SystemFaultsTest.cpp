#include "support/SystemFaults.h"

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketReactor.h>

#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::DatagramSocket;
using Poco::Net::SocketAddress;

namespace {

/// Volatile, so that the compiler cannot remove the allocation.
void allocateOnce()
{
    delete new volatile int;
}

bool opensSocket()
{
    const int socket = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket >= 0)
        ::close(socket);
    return socket >= 0;
}

const SocketAddress anyPort("::1", 0);

}  // namespace

TEST(SystemFaultsTest, PlannedCallsFailAndNoOthers)
{
    const InMarkedThread marked;
    const SystemFault fault({SystemCall::Socket, 2, 2});

    EXPECT_TRUE(opensSocket());
    EXPECT_FALSE(fault.happened());
    EXPECT_FALSE(opensSocket());
    EXPECT_TRUE(fault.happened());
    EXPECT_FALSE(opensSocket());
    EXPECT_TRUE(opensSocket());
    EXPECT_EQ(fault.calls(), 4u);
}

TEST(SystemFaultsTest, NothingFailsAfterTheObjectHasGone)
{
    const InMarkedThread marked;
    {
        const SystemFault fault({SystemCall::Allocate});
    }

    EXPECT_NO_THROW(allocateOnce());
}

TEST(SystemFaultsTest, OnlyMarkedThreadsAreConcernedAndThoseThatTheyStart)
{
    bool hasFailed = false;
    bool hasFailedUnmarked = false;
    {
        const InMarkedThread marked;
        std::thread([&] {
            const SystemFault fault({SystemCall::Allocate});
            try {
                allocateOnce();
            }
            catch (const std::bad_alloc&) {
                hasFailed = true;
            }
        }).join();
    }
    const SystemFault fault({SystemCall::Allocate});
    try {
        allocateOnce();
    }
    catch (const std::bad_alloc&) {
        hasFailedUnmarked = true;
    }

    EXPECT_TRUE(hasFailed);
    EXPECT_FALSE(hasFailedUnmarked);
    EXPECT_EQ(fault.calls(), 0u);
}

TEST(SystemFaultsTest, SocketsOfTheSharedLibrariesFail)
{
    const InMarkedThread marked;
    std::optional<SystemFault> fault{std::in_place, SystemFault::Plan{SystemCall::Socket}};
    EXPECT_THROW(DatagramSocket(anyPort, false), Poco::Exception);
    fault.reset();
    fault.emplace(SystemFault::Plan{SystemCall::Bind});
    EXPECT_THROW(DatagramSocket(anyPort, false), Poco::Exception);
    fault.reset();

    DatagramSocket socket(anyPort, false);
    fault.emplace(SystemFault::Plan{SystemCall::SetOption});
    EXPECT_THROW(socket.setSendBufferSize(10000), Poco::Exception);
    fault.reset();
    fault.emplace(SystemFault::Plan{SystemCall::Control});
    EXPECT_THROW(socket.available(), Poco::Exception);
    fault.reset();
    fault.emplace(SystemFault::Plan{SystemCall::Watch});
    EXPECT_THROW(Poco::Net::SocketReactor(), Poco::Exception);
    fault.reset();
    fault.emplace(SystemFault::Plan{SystemCall::List});
    EXPECT_THROW(Poco::Net::NetworkInterface::map(), Poco::Exception);
}

TEST(SystemFaultsTest, SendingAndReceivingFailsOrReturnsWhatIsPlanned)
{
    const InMarkedThread marked;
    DatagramSocket socket(anyPort, false);
    std::array<char, 10> bytes{};
    SocketAddress sender;

    std::optional<SystemFault> fault{std::in_place, SystemFault::Plan{SystemCall::Send, 2}};
    EXPECT_EQ(socket.sendTo("hello", 5, socket.address()), 5);
    EXPECT_THROW(socket.sendTo("hello", 5, socket.address()), Poco::Exception);
    fault.reset();
    fault.emplace(SystemFault::Plan{SystemCall::Send, 1, 1, 3});
    EXPECT_EQ(socket.sendTo("hello", 5, socket.address()), 3);
    fault.reset();
    fault.emplace(SystemFault::Plan{SystemCall::Receive});
    EXPECT_THROW(socket.receiveFrom(bytes.data(), bytes.size(), sender), Poco::Exception);
    fault.reset();
    fault.emplace(SystemFault::Plan{SystemCall::Receive, 1, 1, 0});
    EXPECT_EQ(socket.receiveFrom(bytes.data(), bytes.size(), sender), 0);
    EXPECT_EQ(socket.receiveFrom(bytes.data(), bytes.size(), sender), 5);
}

TEST(SystemFaultsTest, NetlinkIsAKindByItself)
{
    const InMarkedThread marked;
    const int netlink = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    {
        const SystemFault fault({SystemCall::Socket});
        EXPECT_EQ(::close(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), 0);
    }
    {
        const SystemFault fault({SystemCall::Netlink, 1, SystemFault::forEver});
        EXPECT_EQ(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE), -1);
        char byte = 0;
        EXPECT_EQ(::recv(netlink, &byte, 1, MSG_DONTWAIT), -1);
        EXPECT_EQ(errno, ENOBUFS);
        EXPECT_NO_THROW(DatagramSocket(anyPort, false));
    }
    ::close(netlink);
}

TEST(SystemFaultsTest, NoThreadIsStarted)
{
    const InMarkedThread marked;
    const SystemFault fault({SystemCall::Thread});

    EXPECT_THROW(std::thread([] {}), std::system_error);
    std::thread([] {}).join();
}

TEST(SystemFaultsTest, CallFollowsTheCloseOfADescriptorOnce)
{
    const int descriptor = ::dup(STDERR_FILENO);
    int calls = 0;
    const AfterClose following(descriptor, [&] {
        ++calls;
        EXPECT_EQ(::fcntl(STDERR_FILENO, F_DUPFD, descriptor), descriptor) << "it is free again";
    });

    // cppcheck-suppress invalidFunctionArg ; it is meant to fail
    EXPECT_EQ(::close(-1), -1);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(::close(descriptor), 0);
    EXPECT_EQ(::close(descriptor), 0);
    EXPECT_EQ(calls, 1);
}

TEST(SystemFaultsTest, CountFromZeroAndASecondFaultAreRefused)
{
    EXPECT_THROW(SystemFault({SystemCall::Bind, 0}), std::logic_error);

    const SystemFault fault({SystemCall::Bind});
    EXPECT_THROW(SystemFault({SystemCall::Bind}), std::logic_error);
}

}  // namespace Nubo::ServiceDiscovery::Testing
