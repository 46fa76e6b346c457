#include "soak/Model.h"

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::seconds;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr Model::Unit owner = 0;
constexpr Model::Unit learner = 1;

const Service media{"Media", "fd00::1", 8080};

/// Two attached units. The owner announces "Media" at second 10 of the test's own time.
struct ModelTest : ::testing::Test
{
    ModelTest()
    {
        model.attach(owner, at(0));
        model.attach(learner, at(0));
        model.introduce(owner, media);
        model.announce(media, at(10));
    }

    static Model::Instant at(int second) { return begin + seconds(second); }

    void offer(int second) { model.onMessage(learner, media, Model::Message::Offer, at(second)); }
    void offers(int first, int last)
    {
        for (int second = first; second <= last; ++second)
            offer(second);
    }
    void stopOffer(int second) { model.onMessage(learner, media, Model::Message::StopOffer, at(second)); }
    void discovered(int second) { model.onDiscovered(learner, media, "uuid", at(second)); }
    void gone(int second, const std::string& uuid = "uuid")
    {
        model.onGone(learner, media, uuid, at(second));
    }

    /// Judges once per second, like the soak.
    void judgeUntil(int second)
    {
        for (; judged <= second; ++judged)
            model.judge(at(judged));
    }

    /// The learner receives an offer of the service and discovers it.
    void learn()
    {
        offer(10);
        discovered(10);
    }

    static std::string fault(const std::string& what)
    {
        return "unit 2 " + what + ": \"Media\" at [fd00::1]:8080";
    }

    static inline const Model::Instant begin = Model::Clock::now();
    std::vector<std::string> faults;
    Model model{2, [this](const std::string& text) { faults.push_back(text); }};
    int judged = 0;
};

/// The learner knows the service, but receives nothing about it after second 20.
struct SilentServiceTest : ModelTest
{
    SilentServiceTest()
    {
        learn();
        judgeUntil(20);
        model.detach(owner, at(20));
    }
};

}  // namespace

TEST_F(ModelTest, NormalLifeHasNoFault)
{
    offers(10, 40);
    discovered(10);
    judgeUntil(30);
    model.remove(media, at(41));
    stopOffer(42);
    gone(42);
    judgeUntil(60);

    EXPECT_THAT(faults, IsEmpty());
    EXPECT_EQ(model.counts().discovered, 1u);
    EXPECT_EQ(model.counts().gone, 1u);
}

TEST_F(SilentServiceTest, MayBeGoneAtTheEndOfItsTimeToLive)
{
    gone(131);
    judgeUntil(160);

    EXPECT_THAT(faults, IsEmpty());
}

TEST_F(SilentServiceTest, GoneBeforeTheEndOfItsTimeToLiveIsAFault)
{
    gone(127);
    judgeUntil(160);

    EXPECT_THAT(faults, ElementsAre(fault("loses a service that is being offered to it")));
}

TEST_F(SilentServiceTest, GoneAfterTheEndOfItsTimeToLiveIsAFault)
{
    gone(133);
    judgeUntil(160);

    EXPECT_THAT(faults, ElementsAre(fault("loses a service too late")));
}

TEST_F(SilentServiceTest, StayingKnownIsAFaultOnce)
{
    judgeUntil(160);

    EXPECT_THAT(faults, ElementsAre(fault("knows a service that was withdrawn or is silent")));
}

TEST_F(ModelTest, WithdrawnServiceThatStaysKnownIsAFault)
{
    learn();
    judgeUntil(20);
    model.remove(media, at(20));
    stopOffer(20);
    judgeUntil(40);

    EXPECT_THAT(faults, ElementsAre(fault("knows a service that was withdrawn or is silent")));
}

TEST_F(ModelTest, ServiceThatIsOfferedButNotDiscoveredIsAFault)
{
    offers(10, 20);
    judgeUntil(20);

    EXPECT_THAT(faults, ElementsAre(fault("does not know a service that was offered to it")));
}

TEST_F(ModelTest, ServiceThatIsNeverOfferedIsAFaultWhenPatienceIsOver)
{
    judgeUntil(39);
    EXPECT_THAT(faults, IsEmpty());

    judgeUntil(60);

    EXPECT_THAT(faults, ElementsAre(fault("does not know a service that has long been announced")));
}

TEST_F(ModelTest, NothingNeedBeKnownOfADetachedUnit)
{
    model.detach(owner, at(11));

    judgeUntil(60);

    EXPECT_THAT(faults, IsEmpty());
}

TEST_F(ModelTest, WhatComesInWhileTheUnitIsBeingAttachedMayBeMissed)
{
    model.detach(learner, at(11));
    model.attach(learner, at(12));
    offer(13);
    judgeUntil(30);

    EXPECT_THAT(faults, IsEmpty());
}

TEST_F(ModelTest, SecondDiscoveryIsAFault)
{
    offers(10, 12);
    discovered(10);
    discovered(12);
    judgeUntil(15);

    EXPECT_THAT(faults, ElementsAre(fault("discovers a service that it knows")));
}

TEST_F(ModelTest, DiscoveryWithoutAnOfferIsAFault)
{
    discovered(10);
    judgeUntil(15);

    EXPECT_THAT(faults, Contains(fault("discovers a service that was not offered to it")));
}

TEST_F(ModelTest, DiscoveryOfItsOwnServiceIsAFault)
{
    model.onMessage(owner, media, Model::Message::Offer, at(10));
    model.onDiscovered(owner, media, "uuid", at(10));
    judgeUntil(14);

    EXPECT_THAT(faults, ElementsAre("unit 1 discovers its own service: \"Media\" at [fd00::1]:8080"));
}

TEST_F(ModelTest, LossOfAnUnknownServiceIsAFault)
{
    gone(10);
    judgeUntil(15);

    EXPECT_THAT(faults, ElementsAre(fault("loses a service that it does not know")));
}

TEST_F(ModelTest, LossByAWrongIdentifierIsAFault)
{
    learn();
    model.remove(media, at(12));
    stopOffer(12);
    gone(12, "other");
    judgeUntil(20);

    EXPECT_THAT(faults, ElementsAre(fault("loses a service by a wrong identifier")));
}

TEST_F(ModelTest, LossWhileOffersArriveIsAFault)
{
    offers(10, 20);
    discovered(10);
    gone(15);
    judgeUntil(18);

    EXPECT_THAT(faults, Contains(fault("loses a service that is being offered to it")));
}

TEST_F(ModelTest, OfferOfARemovedServiceIsAFault)
{
    model.remove(media, at(11));
    offer(20);
    judgeUntil(22);

    EXPECT_THAT(faults, ElementsAre(fault("hears an offer of a service that is not announced")));
}

TEST_F(ModelTest, StopOfferOfAnAnnouncedServiceIsAFault)
{
    stopOffer(20);
    judgeUntil(22);

    EXPECT_THAT(faults, ElementsAre(fault("hears a stop-offer of a service that is announced")));
}

TEST_F(ModelTest, OfferOfAServiceThatNobodyHasIsAFault)
{
    model.onMessage(learner, {"Radio", "fd00::1", 8081}, Model::Message::Offer, at(10));
    judgeUntil(12);

    EXPECT_THAT(faults,
                ElementsAre("unit 2 hears of a service that nobody has: \"Radio\" at [fd00::1]:8081"));
}

TEST_F(ModelTest, ReplacedUnitStartsFromNothing)
{
    learn();
    judgeUntil(13);
    model.replace(learner, at(14));
    model.attach(learner, at(15));
    offer(20);
    discovered(20);
    judgeUntil(30);

    EXPECT_THAT(faults, IsEmpty());
}

TEST_F(ModelTest, ServicesOfAReplacedUnitAreNoLongerAnnounced)
{
    model.replace(owner, at(11));
    model.attach(owner, at(12));
    judgeUntil(60);

    EXPECT_THAT(faults, IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
