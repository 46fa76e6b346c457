#include "Multicast/ReportQueue.h"
#include "support/LogCatcher.h"

#include <cstddef>
#include <string>
#include <thread>

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

}  // namespace

TEST(ReportQueueTest, ReportsThatAreDroppedWhileThatIsLoggedAreCountedInTheNextLine)
{
    LogCatcher log;
    std::size_t handled = 0;
    ReportQueue* queue = nullptr;
    ReportQueue made(&handled, [&](const ReportQueue::Report&) {
        if (++handled == 1)
            reportFromElsewhere(*queue, ReportQueue::mostWaiting + 10);
    });
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
    ReportQueue first(&one, handler);
    ReportQueue second(&other, handler);
    one = &first;
    other = &second;
    const LogCatcher log;

    first.report({false, "eth0", "fd00::1"});
    EXPECT_EQ(handled, 1 + ReportQueue::mostNested);

    first.report({false, "eth0", "fd00::1"});
    EXPECT_EQ(handled, 2 * (1 + ReportQueue::mostNested)) << "counted anew";
}

}  // namespace Nubo::ServiceDiscovery::Testing
