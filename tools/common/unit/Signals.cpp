#include "unit/Signals.h"

#include <cerrno>
#include <system_error>

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace NuboSd {

namespace {

bool isIgnored(int number)
{
    struct sigaction action = {};
    return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

int openSignals(std::initializer_list<int> numbers)
{
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : numbers) {
        if (number != SIGHUP || !isIgnored(SIGHUP))
            ::sigaddset(&signals, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category());
    return descriptor;
}

}  // namespace

Signals::Signals(std::initializer_list<int> numbers) : m_descriptor(openSignals(numbers)) {}

Signals::~Signals()
{
    ::close(m_descriptor);
}

std::optional<int> Signals::take() const
{
    signalfd_siginfo signal{};
    if (::read(m_descriptor, &signal, sizeof signal) != sizeof signal)
        return std::nullopt;
    return static_cast<int>(signal.ssi_signo);
}

}  // namespace NuboSd
