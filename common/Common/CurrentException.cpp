#include "Common/CurrentException.h"

#include <Poco/Exception.h>

#include <exception>
#include <ostream>

namespace Common {

namespace {

void streamText(std::ostream& stream, const Poco::Exception& exception)
{
    try {
        stream << exception.displayText();
    }
    catch (const std::exception&) {
        stream << exception.what();  // the type name alone; allocates nothing
    }
}

}  // namespace

std::ostream& currentException(std::ostream& stream)
{
    try {
        throw;
    }
    catch (const Poco::Exception& exception) {
        streamText(stream, exception);
    }
    catch (const std::exception& exception) {
        stream << exception.what();
    }
    catch (...) {
        stream << "unknown exception";
    }
    return stream;
}

}  // namespace Common
