// The fill after the data of a block whose capacity is larger.
#pragma once

#include <cstdint>

// Writes `count` bytes of fill, zeros, at the file's position, in chunks of 32,768. Returns 1; 0
// when there is no memory for its working buffer, and when a write fails.
int internal_WriteEmptyDatas(int16_t file, uint32_t count);
