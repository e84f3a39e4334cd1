#include "SmartCardErrorMessages.h"

#include <iterator>

namespace {

const quint32 firstDocumentedCode = 0x80100001;

// Indexed by the code minus 0x80100001. The empty entries are codes that get no
// text of their own and fall back to the generic one.
const char* const errorTexts[] = {
    "An internal consistency check failed.",                                                           // 0x80100001
    "The action was canceled by an SCardCancel request.",                                              // 0x80100002
    "The supplied handle was invalid.",                                                                // 0x80100003
    "One or more of the supplied parameters could not be properly interpreted.",                       // 0x80100004
    "Registry startup information is missing or invalid.",                                             // 0x80100005
    "Not enough memory available to complete this command.",                                           // 0x80100006
    "An internal consistency timer has expired.",                                                      // 0x80100007
    "The data buffer for returned data is too small for the returned data.",                           // 0x80100008
    "The specified reader name is not recognized.",                                                    // 0x80100009
    "The user-specified timeout value has expired.",                                                   // 0x8010000A
    "The smart card cannot be accessed because of other outstanding connections.",                    // 0x8010000B
    "The operation requires a smart card, but no smart card is currently in the device.",              // 0x8010000C
    "The specified smart card name is not recognized.",                                                // 0x8010000D
    "The system could not dispose of the media in the requested manner.",                              // 0x8010000E
    "The requested protocols are incompatible with the protocol currently in use with the card.",      // 0x8010000F
    "The reader or card is not ready to accept commands.",                                             // 0x80100010
    "One or more of the supplied parameter values could not be properly interpreted.",                 // 0x80100011
    "The action was canceled by the system, presumably to log off or shut down.",                      // 0x80100012
    "An internal communications error has been detected.",                                             // 0x80100013
    "An internal error has been detected, but the source is unknown.",                                 // 0x80100014
    "An ATR string obtained from the registry is not a valid ATR string.",                             // 0x80100015
    "An attempt was made to end a non-existent transaction.",                                          // 0x80100016
    "The specified reader is not currently available for use.",                                       // 0x80100017
    nullptr,                                                                                           // 0x80100018
    "The PCI receive buffer was too small.",                                                           // 0x80100019
    "The reader driver does not meet minimal requirements for support.",                               // 0x8010001A
    "The reader driver didn't produce a unique reader name.",                                          // 0x8010001B
    "The smart card does not meet minimal requirements for support.",                                  // 0x8010001C
    "The smart card resource manager is not running.",                                                 // 0x8010001D
    "The smart card resource manager has shut down.",                                                  // 0x8010001E
    // 0x8010001F to 0x80100064
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    "The reader cannot communicate with the card due to ATR string configuration conflicts.",          // 0x80100065
    "The smart card is not responding to a reset.",                                                    // 0x80100066
    "Power has been removed from the smart card and no further communication is possible.",            // 0x80100067
    "The smart card has been reset, so any shared state information is invalid.",                      // 0x80100068
    "The smart card has been removed and no further communication is possible.",                       // 0x80100069
};

static_assert(std::size(errorTexts) == 0x69, "one entry for each code from 0x80100001 to 0x80100069");

} // namespace

namespace SmartCardErrorMessages {

QString text(int code)
{
    const quint32 index = static_cast<quint32>(code) - firstDocumentedCode;
    if (index < std::size(errorTexts) && errorTexts[index])
        return QString::fromLatin1(errorTexts[index]);
    return QStringLiteral("Error is not documented.");
}

} // namespace SmartCardErrorMessages
