#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"

#include <ios>

namespace Nubo::ServiceDiscovery {

/// The data of an entry and the work on its bytes.
class SOME_IP_SD_Entry_Pimpl
{
public:
    using CommonFields = SOME_IP_SD_Entry::CommonFields;

    /// To be filled by reading: invalid until then.
    explicit SOME_IP_SD_Entry_Pimpl(EntryType::Type_t type);
    explicit SOME_IP_SD_Entry_Pimpl(const CommonFields& fields);
    virtual ~SOME_IP_SD_Entry_Pimpl();

    /// Writes the 12 bytes that all kinds share; a kind adds its own.
    virtual std::ostream& serialise(std::ostream& stream) const;

    /// Reads the bytes behind the type byte. Returns the size of the common part; a kind returns that of its
    /// own part.
    virtual std::streamsize deserialise(std::istream& stream);

    /// Start and end of the text for the log.
    virtual const char* kind() const { return "<UNKNOWN ENTRY TYPE>"; }
    virtual void printSpecific(std::ostream&) const {}

    bool isValid() const { return m_valid; }
    void setValid(bool valid) { m_valid = valid; }

    const CommonFields& commonFields() const { return m_commonFields; }
    CommonFields& commonFields() { return m_commonFields; }

    static constexpr std::streamsize commonSize = 12;   ///< bytes that all kinds share
    static constexpr std::streamsize specificSize = 4;  ///< bytes of a kind's own part

protected:
    /// Marks the entry invalid and logs the types that its kind may have.
    void refuseType(const char* kind, const char* types);

private:
    bool m_valid = false;
    CommonFields m_commonFields;
};

}  // namespace Nubo::ServiceDiscovery
