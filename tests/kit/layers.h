// What is inside the layers below the C++ side, by its own names.
#pragma once

namespace qvdbase {
namespace support {}
namespace format {}
namespace engine {}
namespace maintenance {}
namespace test {
using namespace support;
using namespace format;
using namespace engine;
using namespace maintenance;
}  // namespace test
}  // namespace qvdbase
