#pragma once

#include <winscard.h>

// What the service as a whole needs to know about the PC/SC resource manager, apart from
// any one context.
namespace PcscService {

// True when `result`, from a call on a context, means the resource manager is gone or the
// context is of no further use: only a new context, once the service answers again, helps.
bool isServiceLoss(LONG result);

// True when the resource manager answers now. Quiet: it is asked again and again while the
// service is away.
bool isAvailable();

} // namespace PcscService
