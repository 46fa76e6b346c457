#include "NetlinkFollowing.h"
#include "support/LogCatcher.h"
#include "support/Process.h"

#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/SharedPtr.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// The dispatcher in a process with few descriptors, with closed standard streams, with other code that writes
// to its descriptors, and in a process that forks or ends.
namespace Nubo::ServiceDiscovery::Testing {

using OEMInterface::NetlinkDispatcher;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Le;
using ::testing::SizeIs;

namespace {

bool isOpen(int descriptor)
{
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

/// Limits the process's descriptors while it exists.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(rlim_t limit)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_former);
        const rlimit lower{limit, m_former.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &lower);
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &m_former); }

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    /// The limit with which `count` more descriptors can be opened.
    static rlim_t leavingFree(unsigned count)
    {
        int limit = 0;
        for (unsigned found = 0; found < count; ++limit) {
            if (!isOpen(limit))
                ++found;
        }
        while (isOpen(limit))
            ++limit;
        return static_cast<rlim_t>(limit);
    }

private:
    rlimit m_former{};
};

/// The descriptors that are open now and were not when the object was made.
class NewDescriptors
{
public:
    std::vector<int> all() const
    {
        std::vector<int> result;
        for (const int descriptor : open()) {
            if (std::count(m_before.begin(), m_before.end(), descriptor) == 0)
                result.push_back(descriptor);
        }
        return result;
    }

    int event() const
    {
        return theOne([](int descriptor) {
            const auto link = "/proc/self/fd/" + std::to_string(descriptor);
            return std::filesystem::read_symlink(link) == "anon_inode:[eventfd]";
        });
    }

    /// The netlink socket on which requests are made: the one that has joined no group.
    int requests() const
    {
        return theOne([](int descriptor) {
            sockaddr_nl address{};
            socklen_t size = sizeof(address);
            return ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
                   address.nl_family == AF_NETLINK && address.nl_groups == 0;
        });
    }

private:
    static std::vector<int> open()
    {
        std::vector<int> result;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            result.push_back(std::stoi(entry.path().filename()));
        // Without the one that reads the folder.
        result.erase(std::remove_if(result.begin(), result.end(), [](int one) { return !isOpen(one); }),
                     result.end());
        return result;
    }

    int theOne(const std::function<bool(int)>& isIt) const
    {
        const std::vector<int> candidates = all();
        const auto found = std::find_if(candidates.begin(), candidates.end(), isIt);
        return found == candidates.end() ? -1 : *found;
    }

    const std::vector<int> m_before = open();
};

/// Exit codes by which a child process reports on the dispatcher.
enum Outcome
{
    works = 10,
    throwsException,
    leaksDescriptors,
    isWrong
};

using NetlinkProcessTest = NetlinkFollowing;

struct FewDescriptorsTest : NetlinkFollowing, ::testing::WithParamInterface<unsigned>
{
    [[noreturn]] static void construct()
    {
        const std::size_t before = openDescriptors();
        Outcome outcome = works;
        try {
            const DescriptorLimit limit(DescriptorLimit::leavingFree(GetParam()));
            const NetlinkDispatcher made;
        }
        catch (const Poco::IOException&) {
            outcome = throwsException;
        }
        ::_exit(openDescriptors() == before ? outcome : leaksDescriptors);
    }

    [[noreturn]] void readAnew()
    {
        const LogCatcher log;
        fallBehind();
        network.link("eth1", "fd01::1");
        ip("link delete eth0");

        const DescriptorLimit limit(DescriptorLimit::leavingFree(GetParam()));
        gate.open();

        const bool isRight =
            reports->come(3) &&
            reports->lines() == std::vector<std::string>{"+eth0 fd00::1", "-eth0 fd00::1", "+eth1 fd01::1"} &&
            log.errors().empty();
        ::_exit(isRight ? works : isWrong);
    }
};

/// Ends the process on the thread on which an interface is reported.
struct Exiting
{
    void onAdded(OEMInterface::AddServiceDiscoveryInterfacePayload&) { std::exit(works); }
};

/// Forks when the first interface is reported, and returns in the child as well.
struct Forking
{
    void onAdded(OEMInterface::AddServiceDiscoveryInterfacePayload&)
    {
        if (child != 0)
            return;
        const pid_t forked = ::fork();
        if (forked == 0)
            ::alarm(20);
        child = forked == 0 ? -1 : forked;
    }

    std::atomic<pid_t> child{0};
};

/// Whether the process ends without a signal, with that exit code.
bool endsWith(int code, pid_t process)
{
    int status = 0;
    if (eventually([&] { return ::waitpid(process, &status, WNOHANG) == process; }))
        return WIFEXITED(status) && WEXITSTATUS(status) == code;
    ::kill(process, SIGKILL);
    ::waitpid(process, &status, 0);
    return false;
}

}  // namespace

#ifndef __SANITIZE_ADDRESS__
// UndefinedBehaviorSanitizer, built along with AddressSanitizer, needs descriptors itself.

TEST_P(FewDescriptorsTest, AreEnoughForTheDispatcherFromThreeOn)
{
    constexpr unsigned needed = 3;
    EXPECT_EXIT(construct(), ::testing::ExitedWithCode(GetParam() < needed ? throwsException : works), "");
}

TEST_P(FewDescriptorsTest, AreEnoughToReadAnewWhatTheKernelCouldNotTell)
{
    EXPECT_EXIT(readAnew(), ::testing::ExitedWithCode(works), "");
}

INSTANTIATE_TEST_SUITE_P(Free, FewDescriptorsTest, ::testing::Range(0u, 5u));

TEST_F(NetlinkProcessTest, SocketThatHasFailedIsReplacedAsSoonAsThereAreDescriptors)
{
    const LogCatcher log;
    const NewDescriptors descriptors;
    fallBehind();
    ip("link delete eth0");
    const int stranger = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(stranger, descriptors.requests());
    ::close(stranger);

    const auto begin = std::chrono::steady_clock::now();
    {
        const DescriptorLimit standardStreamsOnly(3);
        gate.open();
        // First the failed socket is reported, then the lack of a new one.
        ASSERT_TRUE(eventually([&] { return log.errors().size() >= 3; }));
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    const std::vector<std::string> errors = log.errors();

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
    EXPECT_EQ(errors[0], "Error: NetlinkDispatcher - I/O error: netlink: route/link: Bad socket");
    EXPECT_EQ(errors[1], "Error: NetlinkDispatcher - I/O error: netlink: open: Unspecific failure");
    EXPECT_EQ(errors[2], errors[1]);
    EXPECT_GE(elapsed.count(), 1.9) << "one line per second";
}

TEST_F(NetlinkProcessTest, FollowsInAProcessThatMayNotEvenWaitForDescriptors)
{
    const LogCatcher log;
    network.link("eth0", "fd00::1");
    network.link("eth1", "fd01::1");
    follow();
    shell(
        "(sleep 0.5; ip -n here link delete eth0; sleep 0.5; ip -n here link delete eth1) > /dev/null 2>&1 "
        "&");
    const auto usedBefore = processorTimes()["OEMNetlink"];
    const auto begin = std::chrono::steady_clock::now();

    {
        const DescriptorLimit nothing(0);
        EXPECT_TRUE(reports->come(4));
    }

    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_THAT(reports->lines(),
                ElementsAre("+eth0 fd00::1", "+eth1 fd01::1", "-eth0 fd00::1", "-eth1 fd01::1"));
    EXPECT_LT(processorTimes()["OEMNetlink"] - usedBefore, elapsed / 4) << "waits without a pause";
    const std::string line =
        "Error: NetlinkDispatcher - I/O error: cannot wait for netlink: Invalid argument";
    EXPECT_THAT(log.errors(),
                AllOf(Contains(line), Each(line), SizeIs(Le(static_cast<std::size_t>(elapsed.count()) + 2))));
}

TEST_F(NetlinkProcessTest, ChildForkedInALineAboutAFailureEndsAtOnceAndTheParentGoesOn)
{
    static std::atomic<pid_t> child{0};
    const auto scenario = [&] {
        ::alarm(20);
        LogCatcher log;
        log.onLine([](const std::string&) {
            if (child == 0)
                child = ::fork();
        });
        network.link("eth0", "fd00::1");
        follow();
        shell("(sleep 0.5; ip -n here link delete eth0) > /dev/null 2>&1 &");
        {
            const DescriptorLimit nothing(0);
            eventually([] { return child > 0; });
        }
        const bool isEnded = child > 0 && endsWith(EXIT_SUCCESS, child);
        network.link("eth1", "fd01::1");
        ::_exit(isEnded && reports->come(3) ? works : isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

#endif

TEST_F(NetlinkProcessTest, GivesItsDescriptorsBack)
{
    const std::size_t before = openDescriptors();

    follow();
    EXPECT_GT(openDescriptors(), before);
    reports.reset();
    dispatcher.reset();

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(NetlinkProcessTest, GivesItsThreadBack)
{
    const std::size_t before = runningThreads();

    follow();
    EXPECT_EQ(runningThreads(), before + 1);
    reports.reset();
    dispatcher.reset();

    EXPECT_TRUE(eventually([&] { return runningThreads() == before; }));
}

TEST_F(NetlinkProcessTest, DescriptorsAreNotInherited)
{
    const NewDescriptors descriptors;

    follow();

    EXPECT_THAT(descriptors.all(), SizeIs(3));
    for (const int descriptor : descriptors.all())
        EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
}

TEST_F(NetlinkProcessTest, NoDescriptorBecomesAStandardStream)
{
    const auto scenario = [&] {
        for (int stream = 0; stream <= 2; ++stream)
            ::close(stream);
        follow();
        const bool areClosed = !isOpen(0) && !isOpen(1) && !isOpen(2);
        ::_exit(areClosed ? works : isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

TEST_F(NetlinkProcessTest, StrangerThatWritesOnTheEventDescriptorEndsNothing)
{
    const NewDescriptors descriptors;
    follow();
    const int event = descriptors.event();

    ::eventfd_write(event, 1);

    EXPECT_TRUE(eventually([&] {
        pollfd readable{event, POLLIN, 0};
        return ::poll(&readable, 1, 0) == 0;
    })) << "the thread is woken for ever";
    network.link("eth0", "fd00::1");
    EXPECT_TRUE(reports->come(1));
}

TEST_F(NetlinkProcessTest, DelegateMayEndTheProcess)
{
    const auto scenario = [&] {
        Poco::SharedPtr<NetlinkDispatcher> offered(new NetlinkDispatcher);
        Exiting exiting;
        const auto binding = offered->bindResponse(Poco::delegate(&exiting, &Exiting::onAdded));
        ApplicationServices::getLocator().add(typeid(NetlinkDispatcher), offered);
        offered.reset();
        network.link("eth0", "fd00::1");
        eventually([] { return false; });
        ::_exit(isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

TEST_F(NetlinkProcessTest, ChildThatADelegateForksAndReturnsInEndsAtOnce)
{
    const auto scenario = [&] {
        NetlinkDispatcher offered;
        reports.emplace(offered);
        Forking forking;
        const auto binding = offered.bindResponse(Poco::delegate(&forking, &Forking::onAdded));
        network.link("eth0", "fd00::1");
        const bool isForked = eventually([&] { return forking.child > 0; });

        const bool isEnded = isForked && endsWith(EXIT_SUCCESS, forking.child);

        network.link("eth1", "fd01::1");
        ::_exit(isEnded && reports->come(2) ? works : isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

TEST_F(NetlinkProcessTest, ForkedChildThatExitsEndsNothing)
{
    const auto scenario = [&] {
        Poco::SharedPtr<NetlinkDispatcher> offered(new NetlinkDispatcher);
        reports.emplace(*offered);
        ApplicationServices::getLocator().add(typeid(NetlinkDispatcher), offered);
        offered.reset();
        // A running thread may hold one of the sanitizer's locks, which would stay locked forever in the
        // child.
        eventually([] { return isAsleep("OEMNetlink"); });
        const pid_t child = ::fork();
        if (child == 0)
            std::exit(works);

        const bool isEnded = endsWith(works, child);
        network.link("eth0", "fd00::1");
        ::_exit(isEnded && reports->come(1) ? works : isWrong);
    };

    EXPECT_EXIT(scenario(), ::testing::ExitedWithCode(works), "");
}

}  // namespace Nubo::ServiceDiscovery::Testing
