#include "Multicast/CloseOnExec.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Multicast {

namespace {

/// The descriptors that an epoll descriptor watches (proc(5), /proc/pid/fdinfo: "tfd: 5 events: …").
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

}  // namespace

void closeWatchersOnExec(const Poco::Net::Socket& socket)
{
    namespace fs = std::filesystem;
    std::error_code error;
    for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
         entry.increment(error))
    {
        std::error_code unreadable;  // the descriptor may be closed by now
        if (fs::read_symlink(entry->path(), unreadable) != "anon_inode:[eventpoll]")
            continue;
        const std::string name = entry->path().filename();
        const std::vector<int> watched = watchedBy(name);
        if (std::find(watched.begin(), watched.end(), socket.impl()->sockfd()) == watched.end())
            continue;
        ::fcntl(std::stoi(name), F_SETFD, FD_CLOEXEC);
        for (const int descriptor : watched)
            ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
}

}  // namespace Nubo::ServiceDiscovery::Multicast
