#include <Common/CurrentException.h>

#include <Poco/Exception.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

TEST(CurrentExceptionTest, TextOfAnyExceptionIsStreamed)
{
    const auto textOf = [](const auto& exception) {
        std::ostringstream stream;
        try {
            throw exception;
        }
        catch (...) {
            stream << Common::currentException;
        }
        return stream.str();
    };

    EXPECT_EQ(textOf(Poco::NotFoundException("the key")), "Not found: the key");
    EXPECT_EQ(textOf(std::runtime_error("no luck")), "no luck");
    EXPECT_EQ(textOf(42), "unknown exception");
}

}  // namespace Nubo::ServiceDiscovery::Testing
