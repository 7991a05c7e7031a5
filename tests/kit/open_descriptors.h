// How many descriptors this process has open: equal before and after, nothing leaked.
#pragma once

#include <fcntl.h>

namespace qvdbase::test {

// Asks for each of them, so that counting needs no descriptor itself.
inline int openDescriptors() {
  int count = 0;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) ++count;
  }
  return count;
}

}  // namespace qvdbase::test
