/* The checksum functions as a component written in C sees them. */

#include "agent/crc32c.h"

uint32_t checksumFromC(const char* text, unsigned long length);

uint32_t checksumFromC(const char* text, unsigned long length)
{
    return ~crc32c_slice_8(0xFFFFFFFF, text, length);
}
