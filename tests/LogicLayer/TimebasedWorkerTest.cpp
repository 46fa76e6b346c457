#include "DataLayer/EngineFrame.h"
#include "LogicLayer/TimebasedWorker.h"
#include "support/LogCatcher.h"
#include "support/Throwing.h"
#include "support/Waiting.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr long parked = 2147483647;

/// Stands in for the state machine, to which a worker belongs.
struct Owner
{
    std::vector<int> workload;
    Poco::FastMutex mutex;
};

class ProbeWorker : public TimebasedWorker<Owner, std::vector<int>>
{
public:
    ProbeWorker(Owner& owner, long intervalMs)
        : TimebasedWorker(owner, "Probe", owner.workload, owner.mutex, intervalMs)
    {}
    ~ProbeWorker() override { stop(); }

    using TimebasedWorker::m_initialized;
    using TimebasedWorker::m_timer;

    void update() override {}
    void unsafe_update() override {}
    void onInterval(Poco::Timer& timer) override
    {
        ++intervals;
        isOwnTimer = &timer == &m_timer;
        if (work)
            work();
    }

    /// Called in every interval. To be set before the start.
    std::function<void()> work;
    std::atomic<int> intervals{0};
    std::atomic<bool> isOwnTimer{false};
};

struct TimebasedWorkerTest : ::testing::Test
{
    Owner owner;
    LogCatcher log;
};

}  // namespace

TEST_F(TimebasedWorkerTest, WorkerIsNotRunningAtFirst)
{
    const ProbeWorker worker(owner, parked);

    EXPECT_FALSE(worker.m_initialized);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TimebasedWorkerTest, FirstIntervalIsOverAtOnce)
{
    ProbeWorker worker(owner, parked);

    worker.start();

    EXPECT_TRUE(worker.m_initialized);
    EXPECT_TRUE(eventually([&] { return worker.intervals == 1; }));
    EXPECT_TRUE(worker.isOwnTimer);
    EXPECT_EQ(worker.m_timer.getPeriodicInterval(), parked);
    EXPECT_THAT(log.lines(), ElementsAre("Trace: TimebasedWorker::start"));
}

TEST_F(TimebasedWorkerTest, IntervalsFollowEachOther)
{
    ProbeWorker worker(owner, 10);
    const Poco::Clock begin;

    worker.start();

    ASSERT_TRUE(eventually([&] { return worker.intervals >= 6; }));
    // Poco's timer may fire up to a millisecond early.
    EXPECT_GE(begin.elapsed(), 5 * 9 * 1000);
}

TEST_F(TimebasedWorkerTest, ThreadIsTheOwnersEvenInTheLineAboutWhatIsThrown)
{
    ProbeWorker worker(owner, parked);
    worker.work = [] { throw std::runtime_error("no"); };
    std::atomic<int> ofOwner{0};
    log.onLine([&](const std::string& line) {
        if (line.find("caught exception") != std::string::npos)
            ofOwner = EngineFrame::isOnThisThread(&owner) ? 1 : -1;
    });

    worker.start();

    EXPECT_TRUE(eventually([&] { return ofOwner != 0; }));
    EXPECT_EQ(ofOwner, 1);
    EXPECT_FALSE(EngineFrame::isOnThisThread(&owner)) << "on another thread";
}

TEST_F(TimebasedWorkerTest, SecondStartChangesNothing)
{
    ProbeWorker worker(owner, parked);
    worker.start();
    ASSERT_TRUE(eventually([&] { return worker.intervals == 1; }));

    worker.start();

    EXPECT_TRUE(keeps([&] { return worker.intervals == 1; }, std::chrono::milliseconds(50)));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: TimebasedWorker::start", "Trace: TimebasedWorker::start"));
}

TEST_F(TimebasedWorkerTest, NoIntervalIsOverAfterTheStop)
{
    ProbeWorker worker(owner, 1);
    worker.start();
    ASSERT_TRUE(eventually([&] { return worker.intervals >= 3; }));

    worker.stop();
    const int before = worker.intervals;

    EXPECT_FALSE(worker.m_initialized);
    EXPECT_TRUE(keeps([&] { return worker.intervals == before; }, std::chrono::milliseconds(50)));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: TimebasedWorker::start", "Trace: TimebasedWorker::stop"));
}

TEST_F(TimebasedWorkerTest, StopWaitsForARunningInterval)
{
    std::atomic<bool> isInInterval{false};
    std::atomic<bool> mayEnd{false};
    std::atomic<bool> isStopped{false};
    ProbeWorker worker(owner, parked);
    worker.work = [&] {
        isInInterval = true;
        eventually([&] { return mayEnd.load(); });
    };
    worker.start();
    ASSERT_TRUE(eventually([&] { return isInInterval.load(); }));

    std::thread stopping([&] {
        worker.stop();
        isStopped = true;
    });

    EXPECT_TRUE(keeps([&] { return !isStopped; }, std::chrono::milliseconds(50)));
    mayEnd = true;
    stopping.join();
    EXPECT_TRUE(isStopped);
}

TEST_F(TimebasedWorkerTest, WorkerThatWasNeverStartedCanBeStopped)
{
    ProbeWorker worker(owner, parked);

    worker.stop();
    worker.stop();

    EXPECT_THAT(log.lines(), ElementsAre("Trace: TimebasedWorker::stop", "Trace: TimebasedWorker::stop"));
}

TEST_F(TimebasedWorkerTest, WorkerCanBeStartedAgainWithItsInterval)
{
    ProbeWorker worker(owner, 10);
    for (int round = 0; round < 20; ++round) {
        worker.start();
        worker.stop();
    }
    worker.intervals = 0;

    worker.start();

    EXPECT_TRUE(eventually([&] { return worker.intervals >= 3; }));
    EXPECT_EQ(worker.m_timer.getPeriodicInterval(), 10);
}

TEST_F(TimebasedWorkerTest, WhatAnIntervalThrowsIsLoggedAndTheTimerGoesOn)
{
    ProbeWorker worker(owner, 1);
    worker.work = [&] { throwOneOfEachKind(static_cast<std::size_t>(worker.intervals)); };

    worker.start();

    EXPECT_TRUE(eventually([&] { return worker.intervals >= 5; }));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SDStateMachine - \"Probe\" caught exception: I/O error: disk full",
                            "Error: SDStateMachine - \"Probe\" caught exception: out of luck",
                            "Error: SDStateMachine - \"Probe\" caught exception: unknown exception"));
}

TEST_F(TimebasedWorkerTest, AnyNumberOfWorkersWorkAtTheSameTime)
{
    constexpr int number = 40;  // more than the process-wide pool has threads
    std::atomic<int> working{0};
    std::vector<std::unique_ptr<ProbeWorker>> workers;
    for (int i = 0; i < number; ++i) {
        workers.push_back(std::make_unique<ProbeWorker>(owner, parked));
        workers.back()->work = [&] {
            ++working;
            eventually([&] { return working == number; });
        };
    }

    for (const auto& worker : workers)
        worker->start();

    EXPECT_TRUE(eventually([&] { return working == number; }));
}

}  // namespace Nubo::ServiceDiscovery::Testing
