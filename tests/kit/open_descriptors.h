// How many descriptors this process has open: equal before and after, nothing leaked.
#ifndef QVDBASE_TESTS_SUPPORT_OPEN_DESCRIPTORS_H
#define QVDBASE_TESTS_SUPPORT_OPEN_DESCRIPTORS_H

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

#endif
