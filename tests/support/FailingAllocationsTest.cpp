#include "support/FailingAllocations.h"

#include <Poco/Net/IPAddress.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

/// Volatile, so that the compiler cannot remove the allocation.
void allocateOnce()
{
    delete new volatile int;
}

}  // namespace

TEST(FailingAllocationsTest, TheNthAllocationFailsAndNoOther)
{
    const FailingAllocation fail(3);

    EXPECT_NO_THROW(allocateOnce());
    EXPECT_NO_THROW(allocateOnce());
    EXPECT_FALSE(fail.happened());
    EXPECT_THROW(allocateOnce(), std::bad_alloc);
    EXPECT_TRUE(fail.happened());
    EXPECT_NO_THROW(allocateOnce());
    EXPECT_TRUE(fail.happened());
}

TEST(FailingAllocationsTest, NothingFailsAfterTheObjectHasGone)
{
    {
        const FailingAllocation fail(1);
    }

    EXPECT_NO_THROW(allocateOnce());
}

TEST(FailingAllocationsTest, AnotherFailureCanFollow)
{
    for (int i = 0; i < 2; ++i) {
        const FailingAllocation fail(1);
        EXPECT_THROW(allocateOnce(), std::bad_alloc);
    }
}

TEST(FailingAllocationsTest, OtherThreadsAreNotConcerned)
{
    bool hasFailed = false;
    const FailingAllocation fail(100);  // starting a thread takes a few

    std::thread([&] {
        try {
            for (int i = 0; i < 1000; ++i)
                allocateOnce();
        }
        catch (const std::bad_alloc&) {
            hasFailed = true;
        }
    }).join();

    EXPECT_FALSE(hasFailed);
    EXPECT_FALSE(fail.happened());
}

TEST(FailingAllocationsTest, EveryFormOfNewIsCounted)
{
    {
        const FailingAllocation fail(1);
        EXPECT_THROW(delete[] new volatile int[7], std::bad_alloc);
    }
    {
        const FailingAllocation fail(1);
        EXPECT_EQ(std::unique_ptr<int>(new (std::nothrow) int), nullptr);
    }
    {
        const FailingAllocation fail(1);
        EXPECT_EQ(std::unique_ptr<int[]>(new (std::nothrow) int[7]), nullptr);
    }
}

TEST(FailingAllocationsTest, AllocationsOfSharedLibrariesAreCounted)
{
    const FailingAllocation fail(1);

    EXPECT_THROW(Poco::Net::IPAddress("fd00::1").toString(), std::bad_alloc);
}

TEST(FailingAllocationsTest, EveryAllocationOfAnAttemptFailsOnce)
{
    const std::string longText(100, 'x');
    std::vector<std::string> texts;
    std::size_t failures = 0;

    while (failsAtAllocation(failures + 1, [&] { texts = {longText, longText}; })) {
        ++failures;
        EXPECT_TRUE(texts.empty());
    }

    // Two texts, their copies, and the array for these.
    EXPECT_EQ(failures, 5u);
    EXPECT_EQ(texts.size(), 2u);
}

TEST(FailingAllocationsTest, OtherExceptionsOfAnAttemptPass)
{
    EXPECT_THROW(failsAtAllocation(1, [] { throw 42; }), int);
}

TEST(FailingAllocationsTest, CountFromZeroAndASecondCountdownAreRefused)
{
    EXPECT_THROW(FailingAllocation(0), std::logic_error);

    const FailingAllocation fail(1000);
    EXPECT_THROW(FailingAllocation(1), std::logic_error);
}

}  // namespace Nubo::ServiceDiscovery::Testing
