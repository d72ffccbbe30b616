// Lengths of texts that may lack a terminator.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

#include "lumora.h"

namespace lumora {

// The length of text, or limit + 1 if it is longer than limit. Reads at most limit + 1 bytes.
inline std::size_t LengthUpTo(const char* text, std::size_t limit) { return strnlen(text, limit + 1); }

// The length of the name field that begins at offset in record, or 41 if the field has no terminator. The
// 41st byte belongs to the next field of the same record, so the function reads nothing outside the record.
inline std::size_t NameLength(const void* record, std::size_t offset) {
    return LengthUpTo(static_cast<const char*>(record) + offset, LUM_NAME_SIZE);
}

// The characters of a name field, which may fill it without a terminator.
inline std::string NameText(const char (&field)[LUM_NAME_SIZE]) {
    return std::string(field, strnlen(field, sizeof(field)));
}

}  // namespace lumora
