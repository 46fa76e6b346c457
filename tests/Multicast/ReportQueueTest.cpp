#include "Multicast/ReportQueue.h"
#include "support/LogCatcher.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
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

/// Two queues. A report to the first brings one to the second, from within a line of the log say.
struct ReportWithinAReportTest : ::testing::Test
{
    std::vector<std::string> handled;
    int left = 0;
    std::function<void(const ReportQueue::Report&)> onInner = [](const ReportQueue::Report&) {};
    ReportQueue inner{&inner,
                      [this](const ReportQueue::Report& report) {
                          handled.push_back(report.name);
                          onInner(report);
                      },
                      [this] { ++left; }};
    ReportQueue outer{&outer,
                      [this](const ReportQueue::Report&) {
                          inner.report({false, "own", "fd00::1"});
                      },
                      leavesNothing};
};

}  // namespace

TEST_F(ReportWithinAReportTest, IsHandledBeforeTheOuterOneEndsAndThoseOfOthersAreLeft)
{
    onInner = [&](const ReportQueue::Report& report) {
        if (report.name == "own")
            reportFromElsewhere(inner, 3);
    };

    outer.report({false, "outer", "fd00::1"});

    EXPECT_THAT(handled, ElementsAre("own"));
    EXPECT_EQ(left, 1);

    inner.report({false, "next", "fd00::1"});
    EXPECT_THAT(handled, ElementsAre("own", "eth0", "eth1", "eth2", "next"));
    EXPECT_EQ(left, 1);
}

TEST_F(ReportWithinAReportTest, IsHandledWithThoseThatCameBeforeIt)
{
    onInner = [&](const ReportQueue::Report& report) {
        if (report.name != "own" || handled.size() > 1)
            return;
        reportFromElsewhere(inner, 2);
        inner.report({false, "own", "fd00::2"});
        reportFromElsewhere(inner, 1);
    };

    outer.report({false, "outer", "fd00::1"});

    EXPECT_THAT(handled, ElementsAre("own", "eth0", "eth1", "own"));
    EXPECT_EQ(left, 1);
}

TEST_F(ReportWithinAReportTest, ThatWasTakenAwayByItsOppositeIsNotWaitedFor)
{
    onInner = [&](const ReportQueue::Report& report) {
        if (report.name != "own" || handled.size() > 1)
            return;
        inner.report({false, "eth9", "fd00::1"});
        inner.report({true, "eth9", "fd00::1"});
        inner.report({false, "eth9", "fd00::1"});  // takes the last one away
        reportFromElsewhere(inner, 1);
    };

    outer.report({false, "outer", "fd00::1"});

    EXPECT_THAT(handled, ElementsAre("own", "eth9"));
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
    ReportQueue* one = nullptr;
    ReportQueue* other = nullptr;
    const ReportQueue::Handler handler = [&](const ReportQueue::Report& report) {
        ++handled;
        one->report(report);
        other->report(report);
    };
    ReportQueue first(&one, handler, leavesNothing);
    ReportQueue second(&other, handler, leavesNothing);
    one = &first;
    other = &second;
    const LogCatcher log;

    first.report({false, "eth0", "fd00::1"});
    EXPECT_EQ(handled, 1 + ReportQueue::mostNested);

    first.report({false, "eth0", "fd00::1"});
    EXPECT_EQ(handled, 2 * (1 + ReportQueue::mostNested)) << "counted anew";
}

}  // namespace Nubo::ServiceDiscovery::Testing
