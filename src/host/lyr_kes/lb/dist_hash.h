// The hashes of keys and of station addresses.
#pragma once

#include <cstdint>

#include "module/export.h"

// CRC-32C (Castagnoli, reflected) over the bytes, starting at 0 and not inverted.
LYR_API uint32_t LyrKes_Hash(const void *key, uint32_t length);

// The DJB string hash: 5381, then h * 33 + byte; the low 31 bits.
LYR_API uint32_t LyrKes_DjbHashCal(const void *bytes, uint32_t length);
