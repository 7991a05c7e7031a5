// Numbers as the tables and the picture show them.
#pragma once

#include <string>

#include "figures/figure.h"

namespace bench {

std::string duration(double nanoseconds);  // "43 ns", "12.5 us", "7.8 ms"
std::string ratio(double times);           // "0.56"; nothing for 0
std::string share(double part);            // "12 %"
std::string grouped(size_t number);        // "1,000,000"
std::string describe(Size size);           // "100,000 records of 100 bytes"

}  // namespace bench
