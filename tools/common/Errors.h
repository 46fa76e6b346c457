#pragma once

#include <stdexcept>

/// Errors that end a run early. Their text is one line that says what is wrong and where.
namespace NuboSd {

enum ExitCode : int
{
    Done = 0,
    NothingFound = 1,
    SomethingBad = 1,
    WrongUsage = 2,
    NetworkUnusable = 3
};

/// The arguments are wrong, or a service cannot be announced.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class NetworkError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

}  // namespace NuboSd
