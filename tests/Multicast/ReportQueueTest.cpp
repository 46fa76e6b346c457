#include "DataLayer/EngineFrame.h"
#include "Multicast/ReportQueue.h"
#include "support/LogCatcher.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Multicast::ReportQueue;
using ::testing::ElementsAre;

namespace {

/// Makes `count` reports on another thread, each about another interface.
void reportFromElsewhere(ReportQueue& queue, std::size_t count)
{
    std::thread([&] {
        for (std::size_t i = 0; i < count; ++i)
            queue.report({false, "eth" + std::to_string(i), "fd00::1"});
    }).join();
}

const ReportQueue::LeaveRest leavesNothing = [] { ADD_FAILURE() << "reports were left"; };

}  // namespace

TEST(ReportQueueTest, ThreadThatDoesAnEnginesWorkLeavesItsReportAndThoseOfOthers)
{
    std::vector<std::string> handled;
    int left = 0;
    ReportQueue queue(
        &queue, [&](const ReportQueue::Report& report) { handled.push_back(report.name); }, [&] { ++left; });

    {
        const EngineFrame working(&left);
        queue.report({false, "own", "fd00::1"});
        reportFromElsewhere(queue, 1);
        queue.report({false, "own", "fd00::2"});
    }

    EXPECT_THAT(handled, ElementsAre("own", "eth0"));
    EXPECT_EQ(left, 2);

    queue.work([] {});
    EXPECT_THAT(handled, ElementsAre("own", "eth0", "own"));
}

TEST(ReportQueueTest, ThreadThatOnlyDeliversReportsHandlesThem)
{
    int handled = 0;
    ReportQueue queue(
        &queue, [&](const ReportQueue::Report&) { ++handled; }, leavesNothing);
    const EngineFrame delivering(&handled, EngineFrame::Role::Delivery);

    queue.report({false, "eth0", "fd00::1"});

    EXPECT_EQ(handled, 1);
}

TEST(ReportQueueTest, ReportsThatAreLeftAreNoMoreThan16384)
{
    const LogCatcher log;
    std::size_t handled = 0;
    ReportQueue queue(
        &queue, [&](const ReportQueue::Report&) { ++handled; }, [] {});

    {
        const EngineFrame working(&handled);
        for (std::size_t i = 0; i < ReportQueue::mostWaiting + 2; ++i)
            queue.report({false, "eth" + std::to_string(i), "fd00::1"});
    }
    queue.work([] {});

    EXPECT_EQ(handled, ReportQueue::mostWaiting);
    EXPECT_THAT(log.errors(), ElementsAre("Error: SDCommunicationHub - 2 reports of interfaces are dropped: "
                                          "16384 others were waiting."));
}

/// One that is left is answered by its opposite, too.
TEST(ReportQueueTest, ReportOfAnInterfaceThatIsReportedWithoutAPauseIsLeftOnce)
{
    std::size_t handled = 0;
    ReportQueue queue(
        &queue, [&](const ReportQueue::Report&) { ++handled; }, [] {});

    {
        const EngineFrame working(&handled);
        for (int i = 0; i < 101; ++i)
            queue.report({i % 2 == 1, "eth0", "fd00::1"});
    }
    queue.work([] {});

    EXPECT_EQ(handled, 1u);
}

TEST(ReportQueueTest, NoThreadIsKeptByTheReportsOfOthersForMoreThanASecondOrSo)
{
    int left = 0;
    std::size_t handled = 0;
    const auto begin = std::chrono::steady_clock::now();
    const auto passed = [&] { return std::chrono::steady_clock::now() - begin; };
    ReportQueue* reported = nullptr;
    ReportQueue queue(
        &queue,
        [&](const ReportQueue::Report&) {
            if (++handled == 1 || passed() < std::chrono::seconds(20))
                reportFromElsewhere(*reported, 1);
        },
        [&] { ++left; });
    reported = &queue;

    queue.report({false, "eth0", "fd00::1"});

    EXPECT_LT(passed(), std::chrono::seconds(10)) << "it takes half a second";
    EXPECT_EQ(left, 1);
}

TEST(ReportQueueTest, WorkThatHasNoTimeForWhatComesLeavesTheRest)
{
    const LogCatcher log;
    int left = 0;
    std::size_t handled = 0;
    ReportQueue queue(
        &queue,
        [&](const ReportQueue::Report&) {
            ++handled;
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
        },
        [&] { ++left; });

    queue.work([&] { reportFromElsewhere(queue, 2); });

    EXPECT_EQ(handled, 1u);
    EXPECT_EQ(left, 1);
}

TEST(ReportQueueTest, ReportsThatAreDroppedWhileThatIsLoggedAreCountedInTheNextLine)
{
    LogCatcher log;
    std::size_t handled = 0;
    ReportQueue* queue = nullptr;
    ReportQueue made(
        &handled,
        [&](const ReportQueue::Report&) {
            if (++handled == 1)
                reportFromElsewhere(*queue, ReportQueue::mostWaiting + 10);
        },
        leavesNothing);
    queue = &made;
    bool isFirst = true;
    log.onLine([&](const std::string&) {
        if (isFirst) {
            isFirst = false;
            reportFromElsewhere(*queue, ReportQueue::mostWaiting + 500);
        }
    });

    queue->report({false, "first", "fd00::1"});
    queue->report({false, "second", "fd00::1"});

    EXPECT_EQ(handled, 2 + 2 * ReportQueue::mostWaiting);
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SDCommunicationHub - 10 reports of interfaces are dropped: 16384 others were "
                    "waiting.",
                    "Error: SDCommunicationHub - 500 reports of interfaces are dropped: 16384 others "
                    "were waiting."));
}

/// As with two engines whose common log channel reports to both on each line.
TEST(ReportQueueTest, ReportsFromLinesAboutReportsToTwoQueuesComeToAnEnd)
{
    std::size_t handled = 0;
    int left = 0;
    ReportQueue* one = nullptr;
    ReportQueue* other = nullptr;
    const ReportQueue::Handler handler = [&](const ReportQueue::Report& report) {
        ++handled;
        one->report(report);
        other->report(report);
    };
    ReportQueue first(&one, handler, leavesNothing);
    ReportQueue second(&other, handler, [&] { ++left; });
    one = &first;
    other = &second;
    const LogCatcher log;
    const auto handleWhatIsLeft = [&] {
        for (int turn = 0; turn < 10 && std::exchange(left, 0) != 0; ++turn)
            second.work([] {});
    };

    first.report({false, "eth0", "fd00::1"});
    handleWhatIsLeft();
    EXPECT_EQ(handled, 1 + ReportQueue::mostNested);

    first.report({false, "eth0", "fd00::1"});
    handleWhatIsLeft();
    EXPECT_EQ(handled, 2 * (1 + ReportQueue::mostNested)) << "counted anew";
}

/// What takes too long is left to another thread; the limit holds for both together.
TEST(ReportQueueTest, SlowLinesAboutReportsThatReportComeToAnEndToo)
{
    std::size_t handled = 0;
    int left = 0;
    ReportQueue* reported = nullptr;
    ReportQueue queue(
        &queue,
        [&](const ReportQueue::Report& report) {
            std::this_thread::sleep_for(std::chrono::milliseconds(handled++ == 0 ? 600 : 0));
            reported->report(report);
        },
        [&] { ++left; });
    reported = &queue;
    const LogCatcher log;

    queue.report({false, "eth0", "fd00::1"});
    EXPECT_EQ(handled, 1u);
    EXPECT_EQ(left, 1);
    std::thread([&] { queue.work([] {}); }).join();

    EXPECT_EQ(handled, 1 + ReportQueue::mostNested);
}

}  // namespace Nubo::ServiceDiscovery::Testing
