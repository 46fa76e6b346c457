// Entry point for libFuzzer and Replay.cpp.

#include "common/Target.h"

#include <KELUtilLib/Logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/NullChannel.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>

namespace Nubo::ServiceDiscovery::Fuzzing {

namespace {

/// Discards log lines but still formats them, because they contain received bytes. Formatting all of them
/// takes several times as long as everything else, so only inputs of every eighth size log more than errors.
void discardLog(std::size_t size)
{
    static const Poco::AutoPtr<Poco::Channel> nowhere(new Poco::NullChannel);
    Poco::Logger& logger = Logging::Log::Logger();
    logger.setChannel(nowhere);
    logger.setLevel(size % 8 == 0 ? Poco::Message::PRIO_TRACE : Poco::Message::PRIO_ERROR);
}

}  // namespace

void require(bool holds, const char* property)
{
    if (holds)
        return;
    std::cerr << "This does not hold: " << property << '.' << std::endl;
    std::abort();
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace Nubo::ServiceDiscovery::Fuzzing;
    discardLog(size);
    tryInput({reinterpret_cast<const char*>(data), size});
    return 0;
}
