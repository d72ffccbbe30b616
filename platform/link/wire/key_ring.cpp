#include "platform/link/wire/key_ring.h"

#include <algorithm>

namespace lumora_link {

const Psk* KeyRing::Find(std::string_view identity) const {
    const auto at =
        std::find_if(mKeys.begin(), mKeys.end(), [&](const Psk& psk) { return psk.identity == identity; });
    return at == mKeys.end() ? nullptr : &*at;
}

bool KeyRing::Has(std::string_view identity, std::string_view key) const {
    const Psk* psk = Find(identity);
    return psk != nullptr && psk->key == key;
}

}  // namespace lumora_link
