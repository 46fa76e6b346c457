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

/// Identifies the open file behind a descriptor.
using Identity = std::pair<dev_t, ino_t>;

std::optional<Identity> identityOf(int descriptor)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0)
        return std::nullopt;
    return Identity(status.st_dev, status.st_ino);
}

/// Opens a pipe on the lowest free descriptor and returns its read end. A pipe has a unique identity and
/// needs neither a file nor an address family. Its read end cannot be written to, and reading it returns end
/// of file.
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
            ::close(placeholder);  // another thread has opened the stream meanwhile
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
