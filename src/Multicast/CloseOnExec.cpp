#include "Multicast/CloseOnExec.h"

#include <Poco/Net/DatagramSocketImpl.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Multicast {

namespace {

/// Returns the descriptors that an epoll descriptor watches (proc(5), /proc/pid/fdinfo: "tfd: 5 events: …").
std::vector<int> watchedBy(const std::string& epoll)
{
    std::vector<int> watched;
    std::ifstream info("/proc/self/fdinfo/" + epoll);
    for (std::string line; std::getline(info, line);) {
        std::istringstream words(line);
        std::string key;
        int descriptor = -1;
        if (words >> key >> descriptor && key == "tfd:")
            watched.push_back(descriptor);
    }
    return watched;
}

struct CloseFolder
{
    void operator()(DIR* folder) const { ::closedir(folder); }
};

bool isEpoll(DIR* folder, const char* name)
{
    constexpr std::string_view epoll = "anon_inode:[eventpoll]";
    std::array<char, epoll.size() + 1> target{};  // one more byte, so that a longer name cannot match
    const ssize_t size = ::readlinkat(::dirfd(folder), name, target.data(), target.size());
    return size > 0 && std::string_view(target.data(), static_cast<std::size_t>(size)) == epoll;
}

class ClosedOnExec : public Poco::Net::DatagramSocketImpl
{
public:
    ClosedOnExec() { initSocket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC); }

private:
    ~ClosedOnExec() override = default;
};

struct OpenedSocket : Poco::Net::DatagramSocket
{
    OpenedSocket() : DatagramSocket(new ClosedOnExec) {}
};

}  // namespace

Poco::Net::MulticastSocket openSocket()
{
    return Poco::Net::MulticastSocket(OpenedSocket());
}

void closeWatchersOnExec(const Poco::Net::MulticastSocket& socket)
{
    // A std::filesystem iterator would terminate the process when memory is short: its increment is noexcept.
    const std::unique_ptr<DIR, CloseFolder> descriptors(::opendir("/proc/self/fd"));
    // cppcheck-suppress readdirCalled ; no other thread reads this stream
    // NOLINTNEXTLINE(concurrency-mt-unsafe) the same
    while (const dirent* const entry = descriptors ? ::readdir(descriptors.get()) : nullptr) {
        if (!isEpoll(descriptors.get(), entry->d_name))
            continue;
        const std::vector<int> watched = watchedBy(entry->d_name);
        if (std::find(watched.begin(), watched.end(), socket.impl()->sockfd()) == watched.end())
            continue;
        ::fcntl(std::stoi(entry->d_name), F_SETFD, FD_CLOEXEC);
        for (const int descriptor : watched)
            ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
}

}  // namespace Nubo::ServiceDiscovery::Multicast
