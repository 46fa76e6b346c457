#include "Common/OwnProcess.h"

#include <atomic>
#include <cstdlib>

#include <pthread.h>
#include <unistd.h>

namespace Common {

namespace {

std::atomic<std::uint32_t> forks{0};  // between the first process and this one

}  // namespace

std::uint64_t OwnProcess::mark()
{
    static const bool isCounting = ::pthread_atfork(nullptr, nullptr, [] { ++forks; }) == 0;
    static_cast<void>(isCounting);
    return std::uint64_t{forks} << 32 | static_cast<std::uint32_t>(::getpid());
}

NoReturnInChildren::~NoReturnInChildren()
{
    if (!m_process.isThis())
        ::_exit(EXIT_SUCCESS);
}

}  // namespace Common
