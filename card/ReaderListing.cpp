#include "ReaderListing.h"

#include <algorithm>
#include <cstring>

namespace ReaderListing {

PcscCall list(SCARDCONTEXT context, std::vector<std::string>& names)
{
    const auto listing = [](LONG result) { return PcscCall("SCardListReaders", result); };
    names.clear();
    // A reader that arrives between sizing and listing makes the buffer too small: size again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        DWORD length = 0;
        LONG result = SCardListReaders(context, nullptr, nullptr, &length);
        if (result == SCARD_E_NO_READERS_AVAILABLE)
            return {};
        if (result != SCARD_S_SUCCESS)
            return listing(result);
        std::vector<char> buffer(std::max<DWORD>(length, 1));
        result = SCardListReaders(context, nullptr, buffer.data(), &length);
        if (result == SCARD_E_INSUFFICIENT_BUFFER)
            continue;
        if (result == SCARD_E_NO_READERS_AVAILABLE)
            return {};
        if (result != SCARD_S_SUCCESS)
            return listing(result);

        // Walk the multi-string, but never past the buffer even if its final NUL is missing.
        const char* name = buffer.data();
        const char* const end = buffer.data() + std::min<size_t>(length, buffer.size());
        while (name < end && *name != '\0') {
            const size_t nameLength = strnlen(name, static_cast<size_t>(end - name));
            names.emplace_back(name, nameLength);
            name += nameLength + 1;
        }
        return {};
    }
    return listing(SCARD_E_INSUFFICIENT_BUFFER);
}

} // namespace ReaderListing
