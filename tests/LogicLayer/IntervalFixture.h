#pragma once

#include "StateMachineFixture.h"

#include <cstddef>

namespace Nubo::ServiceDiscovery::Testing {

/// A state machine marked as running, whose log lines are not caught: for tests with many records or exact
/// times. The test ends the workers' intervals by hand.
struct UnloggedStateMachineFixture : ::testing::Test
{
    UnloggedStateMachineFixture() { machine.run(); }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
};

/// The same with a service of this unit, "Own", which each interval offers.
struct IntervalFixture : UnloggedStateMachineFixture
{
    IntervalFixture() { machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Own")); }

    std::size_t offersOfOwn() const { return engine.hub.sent("Own").size(); }
    std::size_t known() const { return machine.m_index.discovered(); }
};

}  // namespace Nubo::ServiceDiscovery::Testing
