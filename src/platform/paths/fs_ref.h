// FSRef: what identifies a file or directory on the host, in a form that is copied by value.
//
// It holds no descriptor, so nothing has to be closed and nothing leaks when a copy is thrown away.
#pragma once

#include <cstdint>
#include <type_traits>

struct FSRef {
  uint64_t device;
  uint64_t inode;
  uint8_t padding[64];  // zeros
};

static_assert(sizeof(FSRef) == 80);
static_assert(std::is_trivially_copyable_v<FSRef>);
