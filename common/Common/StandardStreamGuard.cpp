#include "Common/StandardStreamGuard.h"

#include <Poco/Exception.h>

#include <array>
#include <cerrno>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Common {

namespace {

constexpr int streams = 3;  // standard input, output and error

/// What is open under a number, whoever opened it.
using Identity = std::pair<dev_t, ino_t>;

std::optional<Identity> identityOf(int descriptor)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0)
        return std::nullopt;
    return Identity(status.st_dev, status.st_ino);
}

/// Opens something under the lowest free number. A pipe, since each has an identity that nothing else has,
/// and needs neither a file nor an address family; the end that is kept takes nothing and has nothing to
/// read.
int openPlaceholder()
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw Poco::IOException("cannot occupy a closed standard stream",
                                std::generic_category().message(errno), errno);
    ::close(ends[1]);
    return ends[0];
}

std::mutex guardsMutex;
unsigned guards = 0;
std::array<std::optional<Identity>, streams> placeholders;

void occupyClosedStreams()
{
    for (int stream = 0; stream < streams; ++stream) {
        if (identityOf(stream))
            continue;
        const int placeholder = openPlaceholder();
        if (placeholder < streams)
            placeholders[static_cast<std::size_t>(placeholder)] = identityOf(placeholder);
        else
            ::close(placeholder);  // another thread was faster
    }
}

void giveStreamsBack()
{
    for (int stream = 0; stream < streams; ++stream) {
        auto& placeholder = placeholders[static_cast<std::size_t>(stream)];
        if (placeholder && placeholder == identityOf(stream))
            ::close(stream);
        placeholder.reset();
    }
}

}  // namespace

StandardStreamGuard::StandardStreamGuard()
{
    const std::lock_guard<std::mutex> lock(guardsMutex);
    try {
        occupyClosedStreams();
    }
    catch (...) {
        if (guards == 0)
            giveStreamsBack();
        throw;
    }
    ++guards;
}

StandardStreamGuard::~StandardStreamGuard()
{
    const std::lock_guard<std::mutex> lock(guardsMutex);
    if (--guards == 0)
        giveStreamsBack();
}

}  // namespace Common
