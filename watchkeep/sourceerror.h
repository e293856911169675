#pragma once

#include <stdexcept>

namespace vistrel::watchkeep {

// A source that cannot be opened (no such interface, no capture privileges, a folder that
// cannot be watched); the text is one line for the user.
class SourceError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace vistrel::watchkeep
