#include "PcscService.h"

namespace PcscService {

bool isServiceLoss(LONG result)
{
    switch (result) {
    case SCARD_E_NO_SERVICE:
    case SCARD_E_SERVICE_STOPPED:
    case SCARD_F_COMM_ERROR:
    // The context died with the daemon that issued it.
    case SCARD_E_INVALID_HANDLE:
    case SCARD_F_INTERNAL_ERROR:
    case SCARD_F_UNKNOWN_ERROR:
    case SCARD_E_SYSTEM_CANCELLED:
    case SCARD_P_SHUTDOWN:
        return true;
    default:
        return false;
    }
}

bool isAvailable()
{
    SCARDCONTEXT context = 0;
    if (SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context) != SCARD_S_SUCCESS)
        return false;
    SCardReleaseContext(context);
    return true;
}

} // namespace PcscService
