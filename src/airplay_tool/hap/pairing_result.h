// What a pairing step gives: the next thing, or why there is none.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace vt::hap {

struct PairingFailure {
    enum class Kind {
        wrongCode,   // the accessory's SRP check failed: the code was not its code
        refused,     // the accessory said no (busy, too many tries, already paired, ...)
        malformed,   // an answer we cannot read
        notGenuine,  // an answer that does not prove it comes from the accessory we know
    };
    Kind kind = Kind::malformed;
    std::string detail;
};

template <class T>
class PairingResult {
  public:
    PairingResult(T value) : value_(std::move(value)) {}  // NOLINT: either side converts
    PairingResult(PairingFailure failure) : failure_(std::move(failure)) {}  // NOLINT

    explicit operator bool() const { return value_.has_value(); }
    const T& operator*() const { return *value_; }
    const T* operator->() const { return &*value_; }
    const PairingFailure& failure() const { return failure_; }

  private:
    std::optional<T> value_;
    PairingFailure failure_;
};

inline PairingFailure malformed(std::string detail) {
    return {PairingFailure::Kind::malformed, std::move(detail)};
}
inline PairingFailure notGenuine(std::string detail) {
    return {PairingFailure::Kind::notGenuine, std::move(detail)};
}

}  // namespace vt::hap
