// The fill behind the data of a block that reserves more room than it uses.
#pragma once

#include <cstdint>

// Writes `count` bytes of fill, zeros, at the file's position, in chunks of 32,768. Returns 1; 0
// when its working buffer cannot be had or a write fails.
int internal_WriteEmptyDatas(int16_t file, uint32_t count);
