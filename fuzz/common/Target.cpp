// The entry point that libFuzzer and the replay call.

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

/// Throws the log's lines away, but has them built: a stranger's bytes get into them. Building all of them
/// takes several times as long as everything else, so only inputs of every eighth size have more than errors.
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
