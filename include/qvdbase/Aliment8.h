/* QVDbase: the buffer codec. Integers in byte buffers, least significant byte first, whatever the
 * host's own order. No function checks its pointers; each reads or writes exactly the bytes named.
 */
#ifndef QVDBASE_ALIMENT8_H
#define QVDBASE_ALIMENT8_H

#include <qvdbase/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Decode an integer at `buf` into `out`. Return the number of bytes consumed: 1, 2, 4 or 8. */
QVDBASE_API int GetFromBuffer_BYTE(const unsigned char* buf, unsigned char* out);
QVDBASE_API int GetFromBuffer_Int16(const unsigned char* buf, uint16_t* out);
QVDBASE_API int GetFromBuffer_Int32(const unsigned char* buf, uint32_t* out);
QVDBASE_API int GetFromBuffer_Int64(const unsigned char* buf, uint64_t* out);

/* Encode `value` at `buf`. Return the number of bytes produced: 1, 2, 4 or 8. */
QVDBASE_API int PutToBuffer_BYTE(unsigned char* buf, unsigned char value);
QVDBASE_API int PutToBuffer_Int16(unsigned char* buf, uint16_t value);
QVDBASE_API int PutToBuffer_Int32(unsigned char* buf, uint32_t value);
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

#endif
