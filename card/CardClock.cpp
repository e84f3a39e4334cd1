#include "CardClock.h"

namespace CardClock {

QDateTime currentDateTimeUtc()
{
    return QDateTime::currentDateTimeUtc();
}

} // namespace CardClock
