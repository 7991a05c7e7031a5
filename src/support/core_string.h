// The platform string that QVWString converts to and from: a counted run of 16-bit characters in
// one block of memory, so that a caller who only knows its name can release it with free().
#ifndef QVDBASE_SUPPORT_CORE_STRING_H
#define QVDBASE_SUPPORT_CORE_STRING_H

#include <qvdbase/base.h>

#include <cstddef>

struct __CFString;

namespace qvdbase::support {

// A copy of `length` characters; null when there is no memory.
__CFString* createCoreString(const QVWCHAR* characters, size_t length);

size_t coreStringLength(const __CFString* string);

// The characters themselves, `coreStringLength` of them, followed by a terminator.
const QVWCHAR* coreStringCharacters(const __CFString* string);

}  // namespace qvdbase::support

#endif
