#include "LogicLayer/ReportDelegate.h"
#include "support/Waiting.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

struct Payload
{};

struct Target
{
    void onReport(Payload&)
    {
        ++calls;
        onCall();
    }
    void onOther(Payload&) {}

    std::atomic<int> calls{0};
    std::function<void()> onCall = [] {};
};

using Delegate = ReportDelegate<Target, Payload>;

struct ReportDelegateTest : ::testing::Test
{
    bool notify() { return delegate.notify(nullptr, payload); }

    Payload payload;
    Target target;
    Delegate delegate{&target, &Target::onReport};
};

}  // namespace

TEST_F(ReportDelegateTest, DeliversUntilItIsDisabled)
{
    EXPECT_TRUE(notify());

    delegate.disable();

    EXPECT_FALSE(notify());
    EXPECT_EQ(target.calls, 1);
}

TEST_F(ReportDelegateTest, DeliversWhileAnotherThreadHasItDeliver)
{
    bool isDelivered = false;
    target.onCall = [&] {
        if (target.calls == 1)
            std::thread([&] { isDelivered = notify(); }).join();
    };

    EXPECT_TRUE(notify());

    EXPECT_TRUE(isDelivered);
    EXPECT_EQ(target.calls, 2);
}

TEST_F(ReportDelegateTest, DisablingWaitsForWhatAnotherThreadDelivers)
{
    std::atomic<bool> isOver{false};
    std::atomic<bool> isDisabled{false};
    target.onCall = [&] { eventually([&] { return isOver.load(); }); };
    std::thread delivering([&] { notify(); });
    EXPECT_TRUE(eventually([&] { return target.calls == 1; }));

    std::thread disabling([&] {
        delegate.disable();
        isDisabled = true;
    });
    EXPECT_TRUE(keeps([&] { return !isDisabled; }, std::chrono::milliseconds(100)));
    isOver = true;
    delivering.join();
    disabling.join();

    EXPECT_TRUE(isDisabled);
}

TEST_F(ReportDelegateTest, DisablingFromWithinWhatItDeliversWaitsForNothing)
{
    target.onCall = [&] { delegate.disable(); };

    EXPECT_TRUE(notify());
    EXPECT_FALSE(notify());
}

TEST_F(ReportDelegateTest, DisablingInAChildDoesNotWaitForAThreadOfTheParent)
{
    std::atomic<bool> isOver{false};
    target.onCall = [&] { eventually([&] { return isOver.load(); }); };
    std::thread delivering([&] { notify(); });
    EXPECT_TRUE(eventually([&] { return target.calls == 1; }));

    const pid_t child = ::fork();
    if (child == 0) {
        delegate.disable();
        ::_exit(42);
    }
    int status = 0;
    const bool isEnded = eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; });
    isOver = true;
    delivering.join();

    EXPECT_TRUE(isEnded && WIFEXITED(status) && WEXITSTATUS(status) == 42);
    if (!isEnded) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
}

TEST_F(ReportDelegateTest, CountsADeliveryThatThrowsAsEnded)
{
    target.onCall = [] { throw 42; };

    EXPECT_THROW(notify(), int);
    delegate.disable();

    EXPECT_FALSE(notify());
}

TEST_F(ReportDelegateTest, CopyDeliversToTheSame)
{
    const std::unique_ptr<Poco::AbstractDelegate<Payload>> copy(delegate.clone());

    EXPECT_TRUE(copy->notify(nullptr, payload));

    EXPECT_EQ(target.calls, 1);
    EXPECT_TRUE(copy->equals(delegate));
}

TEST_F(ReportDelegateTest, EqualsOnlyWhatDeliversToTheSameMethodOfTheSameTarget)
{
    Target other;

    EXPECT_TRUE(delegate.equals(Delegate(&target, &Target::onReport)));
    EXPECT_FALSE(delegate.equals(Delegate(&target, &Target::onOther)));
    EXPECT_FALSE(delegate.equals(Delegate(&other, &Target::onReport)));
}

}  // namespace Nubo::ServiceDiscovery::Testing
