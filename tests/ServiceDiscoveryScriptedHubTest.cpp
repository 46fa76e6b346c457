#include "LogicLayer/Engine.h"
#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"

#include <Poco/Exception.h>

#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The facade over an engine that a test directs.

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// What the engine does, and the calls that it got.
struct Script
{
    std::function<bool()> answer = [] { return true; };
    bool isRunningAfterStart = true;
    std::vector<std::string> calls;
    SDService::Ptr searched;  ///< the record of the last search

    bool take(const std::string& call)
    {
        calls.push_back(call);
        return answer();
    }
};

class ScriptedEngine : public Engine
{
public:
    explicit ScriptedEngine(Script& script) : m_script(script) {}
    ~ScriptedEngine() override { m_script.calls.emplace_back("destroyed"); }

    bool start(const Poco::Net::IPAddress& localAddress) override
    {
        m_script.calls.push_back("start " + localAddress.toString());
        m_isRunning = m_script.isRunningAfterStart;
        return m_isRunning;
    }
    void stop() override
    {
        m_script.calls.emplace_back("stop");
        m_isRunning = false;
    }
    void stopFromWithin() noexcept override {}
    bool isRunning() const override { return m_isRunning; }
    bool isStopping() const override { return false; }
    bool isOnThisThread() const override { return false; }
    bool isOfThisProcess() const override { return true; }

    bool addService(SDService::Ptr& service) override { return m_script.take("add " + summary(service)); }
    bool findService(SDService::Ptr& service) override
    {
        m_script.searched = service;
        return m_script.take("find " + summary(service));
    }
    bool removeService(const std::string& localUuid) override { return m_script.take("remove " + localUuid); }
    std::vector<ServiceStatus> getServices() const override
    {
        m_script.take("services");
        return std::vector<ServiceStatus>(1);
    }

private:
    Script& m_script;
    bool m_isRunning = false;
};

struct ScriptedDiscovery : ServiceDiscovery
{
    explicit ScriptedDiscovery(Script& script) : ServiceDiscovery(new ScriptedEngine(script)) {}
    ScriptedDiscovery() : ServiceDiscovery(Poco::SharedPtr<Engine>()) {}
};

const Poco::Net::IPAddress address("fd00::1");

struct ScriptedHubTest : ::testing::Test
{
    LogCatcher log;
    Script script;
    std::unique_ptr<ServiceDiscovery> discovery = std::make_unique<ScriptedDiscovery>(script);
};

struct RequestCase
{
    const char* name;
    bool (*request)(ServiceDiscovery&);
    const char* call;

    friend void PrintTo(const RequestCase& row, std::ostream* stream) { *stream << row.name; }
};

struct ScriptedRequestTest : ScriptedHubTest, ::testing::WithParamInterface<RequestCase>
{
    bool request() { return GetParam().request(*discovery); }
};

}  // namespace

TEST_F(ScriptedHubTest, StartupAndShutdownReachTheHubOnceEach)
{
    EXPECT_TRUE(discovery->startup(address));
    EXPECT_TRUE(discovery->startup(address));
    EXPECT_TRUE(discovery->running());
    EXPECT_TRUE(discovery->shutdown());
    EXPECT_TRUE(discovery->shutdown());
    EXPECT_FALSE(discovery->running());

    EXPECT_THAT(script.calls, ElementsAre("start fd00::1", "stop"));
    EXPECT_THAT(log.lines(), ElementsAre("Warning: ServiceDiscovery is already running."));
}

TEST_F(ScriptedHubTest, StartupThatFailsInTheHubIsTriedAgainByTheNext)
{
    script.isRunningAfterStart = false;
    EXPECT_FALSE(discovery->startup(address));
    EXPECT_FALSE(discovery->running());
    script.isRunningAfterStart = true;

    EXPECT_TRUE(discovery->startup(address));

    EXPECT_TRUE(discovery->running());
    EXPECT_THAT(script.calls, ElementsAre("start fd00::1", "start fd00::1"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ScriptedHubTest, HubGoesWithTheFacade)
{
    discovery.reset();

    EXPECT_THAT(script.calls, ElementsAre("destroyed"));
}

TEST_F(ScriptedHubTest, SearchLeavesEverythingButTheNameOpen)
{
    discovery->findService(describe("Media"));

    ASSERT_FALSE(script.searched.isNull());
    EXPECT_EQ(script.searched->getNuboDescription().getName(), "Media");
    EXPECT_THAT(script.searched->getNuboDescription().getVersions(), IsEmpty());
    EXPECT_EQ(script.searched->getServiceId(), 0xfffe);
    EXPECT_EQ(script.searched->getInstanceId(), 0xffff);
    EXPECT_EQ(script.searched->getMajorVersion(), 0xff);
    EXPECT_EQ(script.searched->getTTL(), 120u);
}

TEST_F(ScriptedHubTest, ServicesAreThoseOfTheHub)
{
    EXPECT_EQ(discovery->getServices().size(), 1u);

    EXPECT_THAT(script.calls, ElementsAre("services"));
}

TEST_F(ScriptedHubTest, MissingHubRaisesANullPointerException)
{
    discovery = std::make_unique<ScriptedDiscovery>();

    EXPECT_THROW(discovery->startup(address), Poco::NullPointerException);
    EXPECT_THROW(discovery->shutdown(), Poco::NullPointerException);
    EXPECT_THROW(discovery->running(), Poco::NullPointerException);
    EXPECT_THROW(discovery->addService(describe("Media")), Poco::NullPointerException);
    EXPECT_THROW(discovery->findService(describe("Media")), Poco::NullPointerException);
    EXPECT_THROW(discovery->removeService("id"), Poco::NullPointerException);
    EXPECT_THROW(discovery->getServices(), Poco::NullPointerException);
}

TEST_P(ScriptedRequestTest, ReachesTheHubWhoseAnswerComesBack)
{
    EXPECT_TRUE(request());
    script.answer = [] { return false; };
    EXPECT_FALSE(request());

    EXPECT_THAT(script.calls, ElementsAre(GetParam().call, GetParam().call));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(ScriptedRequestTest, InvalidArgumentIsLoggedWithTheExceptionsNameAndMessage)
{
    script.answer = []() -> bool { throw Poco::InvalidArgumentException("no such thing"); };

    EXPECT_FALSE(request());

    EXPECT_THAT(log.lines(), ElementsAre(std::string("Error: ServiceDiscovery failed to ") + GetParam().name +
                                         " Service due to Invalid argument - no such thing"));
}

TEST_P(ScriptedRequestTest, OtherExceptionsPassToTheCaller)
{
    script.answer = []() -> bool { throw Poco::IOException("disk full"); };
    EXPECT_THROW(request(), Poco::IOException);

    script.answer = []() -> bool { throw std::runtime_error("out of luck"); };
    EXPECT_THROW(request(), std::runtime_error);

    EXPECT_THAT(log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, ScriptedRequestTest,
    ::testing::Values(
        RequestCase{"add", [](ServiceDiscovery& d) { return d.addService(describe("Media")); },
                    "add Media NONE INITIAL_WAIT_PHASE #0"},
        RequestCase{"find", [](ServiceDiscovery& d) { return d.findService(describe("Media")); },
                    "find Media NONE INITIAL_WAIT_PHASE #65535"},
        RequestCase{"remove", [](ServiceDiscovery& d) { return d.removeService("id"); }, "remove id"}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
