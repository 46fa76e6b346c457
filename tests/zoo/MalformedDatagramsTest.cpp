#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "zoo/ListeningUnit.h"
#include "zoo/Specimen.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

const SpecimenGroups& zoo()
{
    static const SpecimenGroups groups = readSpecimens("malformed-datagrams.json");
    return groups;
}

/// A unit that announces the service "Local" receives the specimens of a group from a neighbour.
struct MalformedDatagramsTest : ListeningUnitTest, ::testing::WithParamInterface<std::string>
{
    MalformedDatagramsTest() { unit.discovery().addService(describe("Local")); }

    /// The registry's events after the first `events`, in the notation of a specimen's "handled".
    std::vector<std::string> handledSince(std::size_t events) const
    {
        std::vector<std::string> result;
        for (const Registry::Event& event : unit.registry().events(events))
            result.push_back(handledText(event.type, event.description));
        return result;
    }

    /// The log lines of the thread that handles datagrams, which must have handled at least one.
    std::vector<std::string> reported() const
    {
        std::vector<Poco::Message> messages = log.messages();
        const auto handling = std::find_if(messages.begin(), messages.end(), [](const auto& message) {
            return message.getText().rfind("Debug: run: processing ", 0) == 0;
        });
        const auto thread = handling->getTid();
        messages.erase(std::remove_if(messages.begin(), messages.end(),
                                      [&](const auto& message) { return message.getTid() != thread; }),
                       messages.end());
        return reportedLines(messages);
    }
};

}  // namespace

TEST_P(MalformedDatagramsTest, AreReportedAndCostNothingElse)
{
    for (const Specimen& specimen : zoo().at(GetParam())) {
        SCOPED_TRACE(specimen.name);
        log.clear();
        const std::size_t eventsBefore = unit.registry().eventCount();

        speaker.send(specimen.bytes);
        const std::string probe = sendProbe();

        ASSERT_TRUE(isDiscovered(probe)) << "the unit has not heard a good offer behind it";
        std::vector<std::string> handled = specimen.handled;
        handled.push_back("+http://[fd00::2]:8080/" + probe + "/ TCP v1.0.0");
        EXPECT_EQ(handledSince(eventsBefore), handled);
        EXPECT_EQ(reported(), specimen.log);
    }
}

INSTANTIATE_TEST_SUITE_P(Zoo, MalformedDatagramsTest, ::testing::ValuesIn(namesOf(zoo())),
                         [](const auto& row) { return row.param; });

}  // namespace Nubo::ServiceDiscovery::Testing
