// Lengths of texts that may lack a terminator.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

#include "lumora.h"

namespace lumora {

// The length of text, or limit + 1 when it is longer than limit: nothing behind that is read.
inline std::size_t LengthUpTo(const char* text, std::size_t limit) { return strnlen(text, limit + 1); }

// The length of the name field that begins at offset in record, or 41 when it exceeds the field. The 41st
// byte belongs to the field's successor in the same record, so nothing outside the record is read.
inline std::size_t NameLength(const void* record, std::size_t offset) {
    return LengthUpTo(static_cast<const char*>(record) + offset, LUM_NAME_SIZE);
}

// The characters of a name field, which may fill it without a terminator.
inline std::string NameText(const char (&field)[LUM_NAME_SIZE]) {
    return std::string(field, strnlen(field, sizeof(field)));
}

}  // namespace lumora
