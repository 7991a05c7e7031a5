/* QVDbase: what every public header needs. The character type and the export macro. */
#pragma once

#include <stddef.h>
#include <stdint.h>

/* Marks what the shared library shows to applications; everything else stays hidden. */
#if defined(__GNUC__)
#define QVDBASE_API __attribute__((visibility("default")))
#else
#define QVDBASE_API
#endif

/* A character of every 16-bit string and path: UTF-16, one unit. Strings are zero-terminated. */
typedef uint16_t QVWCHAR;
