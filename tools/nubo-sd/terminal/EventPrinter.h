#pragma once

#include <iosfwd>

namespace NuboSd {

struct ServiceEvent;

/// Writes events, one a line, as text or as JSON.
class EventPrinter
{
public:
    EventPrinter(std::ostream& stream, bool json, bool withTime);

    /// False when the line could not be written: nobody reads any more.
    bool print(const ServiceEvent& event);

private:
    std::ostream& m_stream;
    const bool m_json;
    const bool m_withTime;
};

}  // namespace NuboSd
