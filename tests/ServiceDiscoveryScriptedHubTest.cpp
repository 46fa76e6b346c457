#include "LogicLayer/SDCommunicationHub.h"
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

// The facade over a hub that a test directs. This program has the hub's operations from here: what is
// defined in it is not taken from the library.

namespace Nubo::ServiceDiscovery {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// What the hub does, and the calls that it got.
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

Script* script = nullptr;

}  // namespace

SDCommunicationHub::SDCommunicationHub(ServiceDiscovery& serviceDiscovery)
    : m_serviceDiscovery(serviceDiscovery)
    , m_statemachine(*this)
    , m_bufferPool(1)
    , m_sender(*this, "ff14::4:0", 30491)
    , m_receiver(*this, "ff14::4:0", 30491)
    , m_requestHandler(m_requestHandlerQueue)
{}

SDCommunicationHub::~SDCommunicationHub()
{
    script->calls.emplace_back("destroyed");
}

bool SDCommunicationHub::start(const Poco::Net::IPAddress& localAddress)
{
    script->calls.push_back("start " + localAddress.toString());
    m_running = script->isRunningAfterStart;
    return m_running;
}

void SDCommunicationHub::stop()
{
    script->calls.emplace_back("stop");
    m_running = false;
}

bool SDCommunicationHub::addService(SDService::Ptr& service)
{
    return script->take("add " + Testing::summary(service));
}

bool SDCommunicationHub::findService(SDService::Ptr& service)
{
    script->searched = service;
    return script->take("find " + Testing::summary(service));
}

bool SDCommunicationHub::removeService(const std::string& localUuid)
{
    return script->take("remove " + localUuid);
}

std::vector<ServiceStatus> SDCommunicationHub::getServices() const
{
    script->take("services");
    return std::vector<ServiceStatus>(1);
}

bool SDCommunicationHub::isOnThisThread() const
{
    return false;
}

bool SDCommunicationHub::isOfThisProcess() const
{
    return true;
}

// The engine's other parts refer to these; here nobody calls them.
void SDCommunicationHub::announce(const SDService::Ptr&) {}
void SDCommunicationHub::announce(const std::vector<SDService::Ptr>&) {}
void SDCommunicationHub::notifyServiceRegistry(ServiceDiscovery::ServiceListEventPayload&) const {}
void SDCommunicationHub::stopFromWithin() noexcept {}
void SDCommunicationHub::reportDrops() {}
bool SDCommunicationHub::letIncomingBeHandled(long) const
{
    return true;
}
bool SDCommunicationHub::isOwnAddress(const Poco::Net::IPAddress&) const
{
    return false;
}
Poco::Net::IPAddress SDCommunicationHub::unitAddress() const
{
    return {};
}
bool SDCommunicationHub::isOwnOutgoingAddress(const Poco::Net::SocketAddress&) const
{
    return false;
}
bool SDCommunicationHub::containsIP(const Poco::Net::NetworkInterface::AddressList&,
                                    const Poco::Net::IPAddress&, const std::string&)
{
    return false;
}

namespace Testing {

namespace {

/// Opens the facade's pointer to its hub.
template <auto member>
struct Hub
{
    friend Poco::SharedPtr<SDCommunicationHub>& hubOf(ServiceDiscovery& discovery)
    {
        return discovery.*member;
    }
};
template struct Hub<&ServiceDiscovery::m_sdHub>;
Poco::SharedPtr<SDCommunicationHub>& hubOf(ServiceDiscovery& discovery);

const Poco::Net::IPAddress address("fd00::1");

struct ScriptedHubTest : ::testing::Test
{
    ScriptedHubTest()
    {
        script = &m_script;
        discovery = std::make_unique<ServiceDiscovery>();
    }
    ~ScriptedHubTest() override
    {
        discovery.reset();
        script = nullptr;
    }

    LogCatcher log;
    std::unique_ptr<ServiceDiscovery> discovery;

private:
    Script m_script;
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

    EXPECT_THAT(script->calls, ElementsAre("start fd00::1", "stop"));
    EXPECT_THAT(log.lines(), ElementsAre("Warning: ServiceDiscovery is already running."));
}

TEST_F(ScriptedHubTest, StartupThatFailsInTheHubIsTriedAgainByTheNext)
{
    script->isRunningAfterStart = false;
    EXPECT_FALSE(discovery->startup(address));
    EXPECT_FALSE(discovery->running());
    script->isRunningAfterStart = true;

    EXPECT_TRUE(discovery->startup(address));

    EXPECT_TRUE(discovery->running());
    EXPECT_THAT(script->calls, ElementsAre("start fd00::1", "start fd00::1"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ScriptedHubTest, HubGoesWithTheFacade)
{
    discovery.reset();

    EXPECT_THAT(script->calls, ElementsAre("destroyed"));
}

TEST_F(ScriptedHubTest, SearchLeavesEverythingButTheNameOpen)
{
    discovery->findService(describe("Media"));

    ASSERT_FALSE(script->searched.isNull());
    EXPECT_EQ(script->searched->getNuboDescription().getName(), "Media");
    EXPECT_THAT(script->searched->getNuboDescription().getVersions(), IsEmpty());
    EXPECT_EQ(script->searched->getServiceId(), 0xfffe);
    EXPECT_EQ(script->searched->getInstanceId(), 0xffff);
    EXPECT_EQ(script->searched->getMajorVersion(), 0xff);
    EXPECT_EQ(script->searched->getTTL(), 120u);
}

TEST_F(ScriptedHubTest, ServicesAreThoseOfTheHub)
{
    EXPECT_EQ(discovery->getServices().size(), 1u);

    EXPECT_THAT(script->calls, ElementsAre("services"));
}

TEST_F(ScriptedHubTest, MissingHubRaisesANullPointerException)
{
    hubOf(*discovery).reset();

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
    script->answer = [] { return false; };
    EXPECT_FALSE(request());

    EXPECT_THAT(script->calls, ElementsAre(GetParam().call, GetParam().call));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(ScriptedRequestTest, InvalidArgumentIsLoggedWithTheExceptionsNameAndMessage)
{
    script->answer = []() -> bool { throw Poco::InvalidArgumentException("no such thing"); };

    EXPECT_FALSE(request());

    EXPECT_THAT(log.lines(), ElementsAre(std::string("Error: ServiceDiscovery failed to ") + GetParam().name +
                                         " Service due to Invalid argument - no such thing"));
}

TEST_P(ScriptedRequestTest, OtherExceptionsPassToTheCaller)
{
    script->answer = []() -> bool { throw Poco::IOException("disk full"); };
    EXPECT_THROW(request(), Poco::IOException);

    script->answer = []() -> bool { throw std::runtime_error("out of luck"); };
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

}  // namespace Testing

}  // namespace Nubo::ServiceDiscovery
