#include "soak/TurnedModel.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using TurnedTime::millisecond;
using TurnedTime::second;

namespace {

/// Unit 1, one of its services, and one of another unit.
struct TurnedModelTest : ::testing::Test
{
    TurnedModelTest()
    {
        model.setUp(0, true);
        model.start(0);
    }

    static void pass(TurnedTime::Microseconds time)
    {
        TurnedTime::passUntil(TurnedTime::now() + time, [] {});
    }

    void sends(std::uint32_t ttl) { model.onSent(0, {{++session, true, own, ttl}}); }
    void hears(std::uint32_t ttl) { model.onHandled(0, {{1, true, other, ttl}}); }
    void discovers(const std::string& uuid = "a") { model.onEvent(0, {true, other, uuid}); }
    void loses(const std::string& uuid = "a") { model.onEvent(0, {false, other, uuid}); }
    void knows()
    {
        hears(120);
        discovers();
        model.settle();
    }

    const Service own{"Own", "fd00::1", 8000};
    const Service other{"Other", "fd00::2", 8000};
    std::uint16_t session = 0;
    std::vector<std::string> faults;
    TurnedModel model{1, [this](const std::string& fault) { faults.push_back(fault); }};
};

}  // namespace

TEST_F(TurnedModelTest, ServiceThatIsOfferedEverySecondAndThenWithdrawnIsRight)
{
    model.announce(0, own);
    for (int i = 0; i < 3; ++i) {
        sends(120);
        pass(second);
        model.judge();
    }
    model.remove(0, own);
    sends(0);
    pass(2 * second);
    model.judge();

    EXPECT_THAT(faults, IsEmpty());
}

TEST_F(TurnedModelTest, OfferOfWhatIsNotAnnouncedIsAFault)
{
    sends(120);

    EXPECT_THAT(faults, ElementsAre("unit 1 offers what it does not announce: \"Own\" at [fd00::1]:8000"));
}

TEST_F(TurnedModelTest, WithdrawalOfWhatIsAnnouncedIsAFault)
{
    model.announce(0, own);
    sends(0);

    EXPECT_THAT(faults, ElementsAre("unit 1 withdraws \"Own\" at [fd00::1]:8000"));
}

TEST_F(TurnedModelTest, PauseOfMoreThanASecondIsAFault)
{
    model.announce(0, own);
    sends(120);
    pass(second + 51 * millisecond);
    model.judge();

    EXPECT_THAT(faults, ElementsAre("unit 1 has not offered for too long: \"Own\" at [fd00::1]:8000"));
}

TEST_F(TurnedModelTest, PauseThatIsOverWhenItIsJudgedIsAFault)
{
    model.announce(0, own);
    sends(120);
    pass(second + 51 * millisecond);
    sends(120);
    model.judge();

    EXPECT_THAT(faults, ElementsAre("unit 1 has not offered for too long: \"Own\" at [fd00::1]:8000"));
}

TEST_F(TurnedModelTest, PauseOfAUnitWithoutInterfaceIsRight)
{
    model.announce(0, own);
    model.setUp(0, false);
    pass(10 * second);
    model.judge();

    EXPECT_THAT(faults, IsEmpty());
}

TEST_F(TurnedModelTest, RemovedServiceThatIsNotWithdrawnIsAFault)
{
    model.announce(0, own);
    sends(120);
    model.remove(0, own);
    pass(2 * second);
    model.judge();

    EXPECT_THAT(faults, ElementsAre("unit 1 has not withdrawn \"Own\" at [fd00::1]:8000"));
}

TEST_F(TurnedModelTest, ShutdownThatDoesNotWithdrawIsAFault)
{
    model.announce(0, own);
    sends(120);
    model.stop(0);
    model.start(0);

    EXPECT_THAT(faults, ElementsAre("unit 1 was shut down and has not withdrawn \"Own\" at [fd00::1]:8000"));
}

TEST_F(TurnedModelTest, SessionThatIsPassedOverIsAFault)
{
    model.announce(0, own);
    session = 1;
    sends(120);

    EXPECT_THAT(faults, ElementsAre("unit 1 sends session 2 instead of 1"));
}

TEST_F(TurnedModelTest, SessionAfterTheLastIsOne)
{
    model.setUp(0, false);
    model.setUp(0, true);  // the unit may have counted any number of packets meanwhile
    model.announce(0, own);
    session = 0xFFFD;
    sends(120);
    session = 0;
    sends(120);

    EXPECT_THAT(faults, IsEmpty());
    EXPECT_EQ(model.counts().wraps, 1u);
}

TEST_F(TurnedModelTest, DiscoveryLossAndExpiryInTheirTimeAreRight)
{
    knows();
    hears(0);
    loses();
    model.settle();
    knows();
    pass(120 * second);
    loses();
    model.settle();
    pass(10 * second);
    model.judge();

    EXPECT_THAT(faults, IsEmpty());
    EXPECT_EQ(model.counts().discovered, 2u);
    EXPECT_EQ(model.counts().gone, 2u);
}

TEST_F(TurnedModelTest, DiscoveryWithoutAnOfferIsAFault)
{
    discovers();
    model.settle();

    EXPECT_THAT(faults, ElementsAre("unit 1 discovers without a reason \"Other\" at [fd00::2]:8000"));
}

TEST_F(TurnedModelTest, SecondDiscoveryIsAFault)
{
    knows();
    hears(120);
    discovers();
    model.settle();

    EXPECT_THAT(faults, ElementsAre("unit 1 discovers without a reason \"Other\" at [fd00::2]:8000"));
}

TEST_F(TurnedModelTest, OfferThatIsNotDiscoveredIsAFault)
{
    hears(120);
    model.settle();

    EXPECT_THAT(faults, ElementsAre("unit 1 has not discovered \"Other\" at [fd00::2]:8000"));
}

TEST_F(TurnedModelTest, LossBeforeTheTimeToLiveIsOverIsAFault)
{
    knows();
    pass(120 * second - 1);
    loses();
    model.settle();

    EXPECT_THAT(faults, ElementsAre("unit 1 loses without a reason \"Other\" at [fd00::2]:8000"));
}

TEST_F(TurnedModelTest, ServiceThatIsKnownMuchLongerThanItsTimeToLiveIsAFault)
{
    knows();
    pass(121 * second + 51 * millisecond);
    model.judge();

    EXPECT_THAT(faults, ElementsAre("unit 1 still knows what has run out: \"Other\" at [fd00::2]:8000"));
}

TEST_F(TurnedModelTest, ServiceThatRunsOutAfterAStartMayBeKnownUntilTheOthersWereHeard)
{
    knows();
    pass(120 * second);
    model.start(0);
    pass(2 * second + 150 * millisecond);
    model.judge();

    EXPECT_THAT(faults, IsEmpty());
    pass(1);
    model.judge();
    EXPECT_THAT(faults, ElementsAre("unit 1 still knows what has run out: \"Other\" at [fd00::2]:8000"));
}

TEST_F(TurnedModelTest, LossByAnotherIdentifierIsAFault)
{
    knows();
    hears(0);
    loses("b");
    model.settle();

    EXPECT_THAT(faults, ElementsAre("unit 1 loses by another identifier \"Other\" at [fd00::2]:8000"));
}

TEST_F(TurnedModelTest, EventOfAUnitThatIsShutDownIsAFault)
{
    knows();
    model.stop(0);
    pass(120 * second);
    loses();
    model.settle();

    EXPECT_THAT(faults, ElementsAre("unit 1 was shut down and is notified of \"Other\" at [fd00::2]:8000"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
