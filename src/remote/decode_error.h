// Thrown when a line or a record cannot be read at all. Bad values inside a
// record never throw: they take the field's default.
#pragma once

#include <stdexcept>

namespace vt::remote {

class DecodeError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace vt::remote
