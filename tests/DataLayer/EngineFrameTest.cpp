#include "DataLayer/EngineFrame.h"

#include <mutex>
#include <thread>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

const int part = 0;
const int otherPart = 0;

}  // namespace

TEST(EngineFrameTest, ThreadWorksForAPartWhileAFrameOfItExists)
{
    EXPECT_FALSE(EngineFrame::isOnThisThread());
    {
        const EngineFrame frame(&part);

        EXPECT_TRUE(EngineFrame::isOnThisThread());
        EXPECT_TRUE(EngineFrame::isOnThisThread(&otherPart, &part));
        EXPECT_FALSE(EngineFrame::isOnThisThread(&otherPart));
    }
    EXPECT_FALSE(EngineFrame::isOnThisThread());
    EXPECT_FALSE(EngineFrame::isOnThisThread(&part));
}

TEST(EngineFrameTest, OuterFramesCountAsWell)
{
    const EngineFrame outer(&part);
    {
        const EngineFrame inner(&otherPart);
        EXPECT_TRUE(EngineFrame::isOnThisThread(&part));
        EXPECT_TRUE(EngineFrame::isOnThisThread(&otherPart));
    }
    EXPECT_TRUE(EngineFrame::isOnThisThread(&part));
    EXPECT_FALSE(EngineFrame::isOnThisThread(&otherPart));
}

TEST(EngineFrameTest, OtherThreadsDoNotWorkForThePart)
{
    const EngineFrame frame(&part);
    bool isOnOther = true;

    std::thread([&] {
        isOnOther = EngineFrame::isOnThisThread() || EngineFrame::isOnThisThread(&part);
    }).join();

    EXPECT_FALSE(isOnOther);
}

TEST(EngineFrameTest, ReleaseGivesBackTheMutexesThatTheThreadHoldsOnce)
{
    std::mutex mutex;
    std::mutex other;
    {
        const EngineLock lock(&part, mutex);
        const EngineFrame frame(&part);
        const EngineLock inner(&otherPart, other);

        EngineFrame::releaseThisThread();

        EXPECT_TRUE(mutex.try_lock());
        EXPECT_TRUE(other.try_lock());
    }
    mutex.unlock();
    other.unlock();
}

}  // namespace Nubo::ServiceDiscovery::Testing
