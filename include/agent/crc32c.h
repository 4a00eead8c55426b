#pragma once

#include "agent/Export.h"

#include <stdint.h> /* NOLINT(modernize-deprecated-headers): usable from C */

#ifdef __cplusplus
extern "C" {
#endif

/*
 * CRC-32C (Castagnoli; RFC 3720, 12.1) of a buffer.
 *
 * Each function takes the register to start from and returns the register after `length` bytes. Unless said
 * otherwise none inverts it: for the published checksum start from 0xFFFFFFFF and invert the result. A length
 * of 0 returns the register as it came. Data may lie at any alignment. All of them may run on any number of
 * threads.
 */

/*
 * The best routine for this processor: crc32c_hw64 where it has the instruction (SSE4.2), else crc32c_slice_8.
 *
 * The two differ for a length that is no multiple of 8: the instruction works on whole words and leaves the
 * last length % 8 bytes out. Callers checksum whole blocks, whose lengths are multiples of 8, and receivers
 * depend on the values as they are.
 */
AGENTKIT_API uint32_t crc32c(uint32_t crc, const void* data, unsigned long length);

/* One byte at a time, with one table of 1 KiB. */
AGENTKIT_API uint32_t crc32c_sarwate(uint32_t crc, const void* data, unsigned long length);

/* As crc32c_sarwate; the result is inverted, the register taken is not. */
AGENTKIT_API uint32_t crc32c_sarwate_ms(uint32_t crc, const void* data, unsigned long length);

/* Four or eight bytes at a time, with tables of 4 or 8 KiB. */
AGENTKIT_API uint32_t crc32c_slice_4(uint32_t crc, const void* data, unsigned long length);
AGENTKIT_API uint32_t crc32c_slice_8(uint32_t crc, const void* data, unsigned long length);

/*
 * The processor's instruction on words of four or eight bytes. Only the length / 4 or length / 8 whole words
 * count. The processor must have SSE4.2: elsewhere these end the process with SIGILL.
 */
AGENTKIT_API uint32_t crc32c_hw32(uint32_t crc, const void* data, unsigned long length);
AGENTKIT_API uint32_t crc32c_hw64(uint32_t crc, const void* data, unsigned long length);

#ifdef __cplusplus
}
#endif
