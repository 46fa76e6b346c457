#pragma once

#include "DataLayer/SDClock.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Event = TestStateMachine::Event;
using State = SDService::State;
using Type = SDService::Type;

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff second = 1000 * millisecond;
constexpr Poco::Clock::ClockDiff hour = 3600 * second;

/// Record of a search for that name, by this unit's registry or by another unit.
inline SDService::Ptr searched(const std::string& name)
{
    return new SDService(name);
}

/// Record of another unit's offer.
inline SDService::Ptr offered(const std::string& name = "Media", const std::string& address = "fd00::2",
                              unsigned short port = 8080, unsigned int ttl = 120)
{
    SDService::Ptr service = makeService(name, address, port);
    service->setTTL(ttl);
    return service;
}

/// Records of "Media" in the form in which the state machine keeps them.
inline SDService::Ptr discovered(const std::string& address = "fd00::2", const std::string& uuid = "uuid-0")
{
    return makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Media", address, 8080, uuid);
}

inline SDService::Ptr wanted(const std::string& name = "Media")
{
    SDService::Ptr service = makeRecord(Type::WANTED, State::REPETITION_PHASE, name);
    service->setInstanceId(0xffff);
    return service;
}

inline SDService::Ptr announced(State::State_t state, const std::string& address = "fd00::1",
                                unsigned short port = 8080, unsigned short instanceID = 1)
{
    SDService::Ptr service = makeRecord(Type::ANNOUNCED, state, "Media", address, port);
    service->setInstanceId(instanceID);
    return service;
}

/// A state machine to which a test hands events. Its timers do not run.
struct StateMachineFixture : ::testing::Test
{
    bool put(const SDService::Ptr& service) { return machine.handle(Event::HTTP_PUT, service); }
    bool remove(const std::string& uuid) { return machine.handle(Event::HTTP_DELETE, nullptr, uuid); }
    bool get(const SDService::Ptr& service) { return machine.handle(Event::HTTP_GET, service); }
    bool find(const std::string& name) { return machine.handle(Event::SOMEIP_FIND, searched(name)); }
    bool offer(const SDService::Ptr& service) { return machine.handle(Event::SOMEIP_OFFER, service); }
    bool stopOffer(const SDService::Ptr& service) { return machine.handle(Event::SOMEIP_STOPOFFER, service); }

    std::vector<std::string> aperiodic() const { return summaries(machine.aperiodic()); }
    std::vector<std::string> periodic() const { return summaries(machine.periodic()); }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    LogCatcher log;
};

/// The same, marked as running. The test ends the workers' intervals by hand.
struct RunningStateMachineFixture : StateMachineFixture
{
    RunningStateMachineFixture() { machine.run(); }
};

}  // namespace Nubo::ServiceDiscovery::Testing
