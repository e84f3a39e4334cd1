#pragma once

#include "PcscCall.h"

#include <winscard.h>

#include <string>
#include <vector>

namespace ReaderListing {

// The names of the attached readers, as PC/SC gives them; none is not a failure.
PcscCall list(SCARDCONTEXT context, std::vector<std::string>& names);

} // namespace ReaderListing
