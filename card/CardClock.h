#pragma once

#include <QDateTime>

// The wall clock behind the reader-list refresh. Kept behind a link seam so that
// tests of the monitor loop can step through a refresh without waiting for it.
namespace CardClock {

QDateTime currentDateTimeUtc();

} // namespace CardClock
