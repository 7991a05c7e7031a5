/* QVDbase: the buffer codec. Integers in byte buffers, least significant byte first, whatever the
 * host's own order. No function checks its pointers; each reads or writes exactly the bytes named.
 */
#pragma once

#include <qvdbase/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the byte at `buf` into `out`. Returns the number of bytes consumed, 1. */
QVDBASE_API int GetFromBuffer_BYTE(const unsigned char* buf, unsigned char* out);

/* Decodes the 2 bytes at `buf` into `out`. Returns the number of bytes consumed, 2. */
QVDBASE_API int GetFromBuffer_Int16(const unsigned char* buf, uint16_t* out);

/* Decodes the 4 bytes at `buf` into `out`. Returns the number of bytes consumed, 4. */
QVDBASE_API int GetFromBuffer_Int32(const unsigned char* buf, uint32_t* out);

/* Decodes the 8 bytes at `buf` into `out`. Returns the number of bytes consumed, 8. */
QVDBASE_API int GetFromBuffer_Int64(const unsigned char* buf, uint64_t* out);

/* Writes `value` to the byte at `buf`. Returns the number of bytes produced, 1. */
QVDBASE_API int PutToBuffer_BYTE(unsigned char* buf, unsigned char value);

/* Encodes `value` into the 2 bytes at `buf`. Returns the number of bytes produced, 2. */
QVDBASE_API int PutToBuffer_Int16(unsigned char* buf, uint16_t value);

/* Encodes `value` into the 4 bytes at `buf`. Returns the number of bytes produced, 4. */
QVDBASE_API int PutToBuffer_Int32(unsigned char* buf, uint32_t value);

/* Encodes `value` into the 8 bytes at `buf`. Returns the number of bytes produced, 8. */
QVDBASE_API int PutToBuffer_Int64(unsigned char* buf, uint64_t value);

/* Writes byteCount / 2 characters of `text` to `buf`, each low byte first, without a terminator; an
 * odd last byte is not written, and with a byteCount below 2 nothing is. */
QVDBASE_API void RZPutQVWCHAR2Buffer(unsigned char* buf, const QVWCHAR* text, int byteCount);

/* Reads byte pairs of `buf`, low byte first, into `text` while fewer than byteCount bytes have been
 * consumed, without a terminator. With an odd byteCount the last pair reads one byte more:
 * `buf` must hold it and `text` needs (byteCount + 1) / 2 characters. */
QVDBASE_API void RZGetQVWCHARFromBuffer(QVWCHAR* text, const unsigned char* buf, int byteCount);

#ifdef __cplusplus
}
#endif
