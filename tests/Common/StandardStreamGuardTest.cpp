#include <Common/StandardStreamGuard.h>

#include <Poco/Exception.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

using Common::StandardStreamGuard;

namespace {

bool isOpen(int descriptor)
{
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

int newDescriptor()
{
    return ::eventfd(0, EFD_CLOEXEC);
}

/// Identifies what is open under the number.
std::pair<dev_t, ino_t> identity(int descriptor)
{
    struct stat status
    {};
    ::fstat(descriptor, &status);
    return {status.st_dev, status.st_ino};
}

void closeStreams()
{
    for (int stream = 0; stream <= 2; ++stream)
        ::close(stream);
}

/// What a child process found, as its exit code: it may have no standard error to print on.
class Findings
{
public:
    void expect(bool holds)
    {
        ++m_number;
        if (!holds && m_firstFailure == 0)
            m_firstFailure = m_number;
    }

    /// 0, or the number of the first expectation that did not hold, counted from 1.
    [[noreturn]] void exit() const { ::_exit(m_firstFailure); }

private:
    int m_number = 0;
    int m_firstFailure = 0;
};

const ::testing::ExitedWithCode wellDone(0);

/// The standard streams that are closed, as bits.
struct ClosedStreamsTest : ::testing::TestWithParam<unsigned>
{
    static bool isClosedStream(int stream) { return (GetParam() >> stream & 1) != 0; }

    static void closeThem()
    {
        for (int stream = 0; stream <= 2; ++stream) {
            if (isClosedStream(stream))
                ::close(stream);
        }
    }
};

}  // namespace

TEST_P(ClosedStreamsTest, AreNotGivenOutWhileTheyAreGuardedAndAreClosedAfterwards)
{
    const auto scenario = [] {
        closeThem();
        Findings findings;
        {
            const StandardStreamGuard guard;
            for (int i = 0; i < 4; ++i)
                findings.expect(newDescriptor() > 2);
        }
        for (int stream = 0; stream <= 2; ++stream)
            findings.expect(isOpen(stream) != isClosedStream(stream));
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

TEST_P(ClosedStreamsTest, DoNotChangeWhatTheOthersAre)
{
    const auto scenario = [] {
        closeThem();
        Findings findings;
        std::array<std::pair<dev_t, ino_t>, 3> before;
        for (int stream = 0; stream <= 2; ++stream)
            before[static_cast<std::size_t>(stream)] = identity(stream);
        const StandardStreamGuard guard;
        for (int stream = 0; stream <= 2; ++stream)
            findings.expect(isClosedStream(stream) ||
                            identity(stream) == before[static_cast<std::size_t>(stream)]);
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

INSTANTIATE_TEST_SUITE_P(Subsets, ClosedStreamsTest, ::testing::Range(0u, 8u));

TEST(StandardStreamGuardTest, LastGuardGivesTheStreamsBack)
{
    const auto scenario = [] {
        closeStreams();
        Findings findings;
        std::optional<StandardStreamGuard> first(std::in_place);
        std::optional<StandardStreamGuard> second(std::in_place);
        first.reset();
        findings.expect(newDescriptor() > 2);
        first.emplace();
        second.reset();
        findings.expect(newDescriptor() > 2);
        first.reset();
        findings.expect(newDescriptor() == 0);
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

TEST(StandardStreamGuardTest, StreamClosedUnderAGuardIsOccupiedByTheNext)
{
    const auto scenario = [] {
        Findings findings;
        const StandardStreamGuard first;
        ::close(1);
        const StandardStreamGuard second;
        findings.expect(newDescriptor() > 2);
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

TEST(StandardStreamGuardTest, WhatTheProcessPutsThereMeanwhileStays)
{
    const auto scenario = [] {
        const int file = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        closeStreams();
        Findings findings;
        {
            const StandardStreamGuard guard;
            ::dup2(file, 2);
        }
        findings.expect(!isOpen(0));
        findings.expect(!isOpen(1));
        findings.expect(isOpen(2));
        findings.expect(identity(2) == identity(file));
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

TEST(StandardStreamGuardTest, OccupiedStreamsAreNotInheritedAndTakeNothing)
{
    const auto scenario = [] {
        closeStreams();
        Findings findings;
        const StandardStreamGuard guard;
        for (int stream = 0; stream <= 2; ++stream) {
            findings.expect((::fcntl(stream, F_GETFD) & FD_CLOEXEC) != 0);
            char byte = 'x';
            findings.expect(::write(stream, &byte, 1) == -1 && errno == EBADF);
            findings.expect(::read(stream, &byte, 1) == 0);
        }
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

TEST(StandardStreamGuardTest, ThreadsMayGuardAtOnce)
{
    const auto scenario = [] {
        closeStreams();
        std::atomic<bool> isWellDone{true};
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&] {
                for (int i = 0; i < 500; ++i) {
                    const StandardStreamGuard guard;
                    const int descriptor = newDescriptor();
                    if (descriptor <= 2)
                        isWellDone = false;
                    ::close(descriptor);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        Findings findings;
        findings.expect(isWellDone);
        findings.expect(newDescriptor() == 0);
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

TEST(StandardStreamGuardTest, WithoutDescriptorsItThrowsAndLeavesNothingOpen)
{
    const auto scenario = [] {
        closeStreams();
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 2;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        Findings findings;
        try {
            const StandardStreamGuard guard;
            findings.expect(false);
        }
        catch (const Poco::IOException&) {
            findings.expect(true);
        }
        for (int stream = 0; stream <= 2; ++stream)
            findings.expect(!isOpen(stream));
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const StandardStreamGuard guard;
        findings.expect(newDescriptor() > 2);
        findings.exit();
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

TEST(StandardStreamGuardTest, NeedsNoDescriptorWhileTheStreamsAreOpen)
{
    const auto scenario = [] {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 0;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const StandardStreamGuard guard;
        ::_exit(EXIT_SUCCESS);
    };

    EXPECT_EXIT(scenario(), wellDone, "");
}

}  // namespace Nubo::ServiceDiscovery::Testing
