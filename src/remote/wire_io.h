// Reading and writing of record fields, shared by every record and message.
// Not for use outside this folder: the public entry points are in
// message_codec.h and record_json.h.
//
// The rules, the same for every field:
// - A record is unreadable when one of its required keys is missing, or when
//   a required field holds a record that is unreadable or not an object. An
//   unreadable record is skipped in a list and reads as absent in an optional
//   field; at the top of a message the message does not decode.
// - Any other value of the wrong type takes the field's default; numbers are
//   clamped into the field's range and integers into their type.
// - List entries that cannot be read are skipped, except in lists of optional
//   values, where position carries meaning and such an entry reads as absent.
// - An unknown enumeration value reads as the enumeration's fallback when it
//   has one (row kinds, equaliser kinds); enumerations without one (media
//   commands, measuring roles) make the message not decode, as an unknown
//   message does.
#pragma once

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "equaliser/eq_kind.h"
#include "remote/base64.h"
#include "remote/decode_error.h"
#include "remote/row_info.h"
#include "remote/wire_enums.h"

namespace vt::remote::wire {

using Out = nlohmann::ordered_json;
using In = nlohmann::json;

struct Clamp {
    double lower = -std::numeric_limits<double>::max();
    double upper = std::numeric_limits<double>::max();
};
inline constexpr Clamp unbounded{};
inline constexpr Clamp unitRange{0.0, 1.0};
inline constexpr Clamp nonNegative{0.0, std::numeric_limits<double>::max()};

template <class E>
struct EnumWire;

template <>
struct EnumWire<MediaCommand> {
    static std::string_view raw(MediaCommand c) { return rawValue(c); }
    static std::optional<MediaCommand> parse(std::string_view s) { return mediaCommandFromRaw(s); }
    static constexpr std::optional<MediaCommand> fallback{};
};

template <>
struct EnumWire<MeasureRole> {
    static std::string_view raw(MeasureRole r) { return rawValue(r); }
    static std::optional<MeasureRole> parse(std::string_view s) { return measureRoleFromRaw(s); }
    static constexpr std::optional<MeasureRole> fallback{};
};

template <>
struct EnumWire<RowInfo::Kind> {
    static std::string_view raw(RowInfo::Kind k) { return rawValue(k); }
    static std::optional<RowInfo::Kind> parse(std::string_view s) { return rowKindFromRaw(s); }
    static constexpr std::optional<RowInfo::Kind> fallback{RowInfo::Kind::other};
};

template <>
struct EnumWire<equaliser::EQKind> {
    static std::string_view raw(equaliser::EQKind k) { return equaliser::rawValue(k); }
    static std::optional<equaliser::EQKind> parse(std::string_view s) {
        return equaliser::kindFromRaw(s);
    }
    static constexpr std::optional<equaliser::EQKind> fallback{equaliser::EQKind::off};
};

template <class T>
concept WireEnum = requires {
    EnumWire<T>::fallback;
};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

template <class T>
struct IsIntMap : std::false_type {};
template <class T>
struct IsIntMap<std::map<int, T>> : std::true_type {};

using Bytes = std::vector<uint8_t>;

// The parameter type of describe(): const for writing, mutable for reading.
template <class T, class Io>
using Ref = std::conditional_t<Io::writing, const T&, T&>;

// A float travels as the shortest decimal that reads back as the same float,
// so 0.123f goes out as 0.123 and not as its exact binary expansion.
inline double floatAsDouble(float f) {
    if (!std::isfinite(f)) return 0.0;
    char text[32];
    const auto res = std::to_chars(text, text + sizeof text, f);
    double d = 0;
    std::from_chars(text, res.ptr, d);
    return d;
}

class Writer {
  public:
    static constexpr bool writing = true;

    template <class T>
    void field(std::string_view key, const T& v, Clamp = unbounded) {
        if constexpr (IsOptional<T>::value) {
            if (!v) return;
        }
        out[std::string(key)] = value(v);
    }
    template <class T>
    void late(std::string_view key, const T& v, Clamp c = unbounded) {
        field(key, v, c);
    }
    template <class A, class B>
    void parallel(std::string_view keyA, const std::vector<A>& a, std::string_view keyB,
                  const std::vector<B>& b, Clamp c) {
        field(keyA, a);
        field(keyB, b, c);
    }

    template <class T>
    static Out value(const T& v);

    Out out = Out::object();
};

template <class T>
Out Writer::value(const T& v) {
    if constexpr (std::is_same_v<T, bool>) {
        return Out(v);
    } else if constexpr (std::is_same_v<T, double>) {
        // JSON has no NaN or infinity; a record never carries one, but if a
        // caller hands one in, the line must still be valid JSON.
        return Out(std::isfinite(v) ? v : 0.0);
    } else if constexpr (std::is_same_v<T, float>) {
        return Out(floatAsDouble(v));
    } else if constexpr (std::is_integral_v<T>) {
        return Out(v);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return Out(v);
    } else if constexpr (std::is_same_v<T, Bytes>) {
        return Out(base64Encode(v));
    } else if constexpr (WireEnum<T>) {
        return Out(std::string(EnumWire<T>::raw(v)));
    } else if constexpr (IsOptional<T>::value) {
        return v ? value(*v) : Out(nullptr);
    } else if constexpr (IsVector<T>::value) {
        Out list = Out::array();
        for (const auto& e : v) list.push_back(value(e));
        return list;
    } else if constexpr (IsIntMap<T>::value) {
        Out object = Out::object();
        for (const auto& [k, e] : v) object[std::to_string(k)] = value(e);
        return object;
    } else {
        Writer w;
        describe(w, v);
        return std::move(w.out);
    }
}

template <class I>
bool readInteger(const In& j, I& v) {
    using L = std::numeric_limits<I>;
    if (j.is_number_unsigned()) {
        const auto u = j.get<uint64_t>();
        v = u > static_cast<uint64_t>(L::max()) ? L::max() : static_cast<I>(u);
        return true;
    }
    if (j.is_number_integer()) {
        const auto s = j.get<int64_t>();
        v = static_cast<I>(std::clamp<int64_t>(s, L::min(), L::max()));
        return true;
    }
    if (j.is_number_float()) {
        // 3.0 is an integer written by an encoder that only has doubles; 3.5 is not.
        const double d = j.get<double>();
        if (!std::isfinite(d) || d != std::trunc(d)) return false;
        if (d >= static_cast<double>(L::max())) {
            v = L::max();
        } else if (d <= static_cast<double>(L::min())) {
            v = L::min();
        } else {
            v = static_cast<I>(d);
        }
        return true;
    }
    return false;
}

// "12" and "-3" read as integers; "+1", "01", " 1" and "1.0" do not.
inline std::optional<int> integerKey(std::string_view text) {
    if (text.empty() || text.size() > 11) return std::nullopt;
    if (text.size() > 1 && text[0] == '0') return std::nullopt;
    if (text.size() > 2 && text[0] == '-' && text[1] == '0') return std::nullopt;
    int v = 0;
    const auto res = std::from_chars(text.data(), text.data() + text.size(), v);
    if (res.ec != std::errc() || res.ptr != text.data() + text.size()) return std::nullopt;
    return v;
}

class Reader {
  public:
    static constexpr bool writing = false;

    explicit Reader(const In& object) : object_(object) {}

    template <class T>
    void field(std::string_view key, T& v, Clamp c = unbounded) {
        const In* f = find(key);
        if constexpr (IsOptional<T>::value) {
            readOptional(f, v, c);
        } else {
            if (!f) throw DecodeError("No value associated with key \"" + std::string(key) + "\".");
            read(*f, v, c);
        }
    }

    // A field an older peer may leave out: missing reads as the default.
    template <class T>
    void late(std::string_view key, T& v, Clamp c = unbounded) {
        if constexpr (IsOptional<T>::value) {
            readOptional(find(key), v, c);
        } else if (const In* f = find(key)) {
            read(*f, v, c);
        }
    }

    // Two lists that belong together entry by entry: an entry that cannot be
    // read in either drops out of both, so the pairs never shift.
    template <class A, class B>
    void parallel(std::string_view keyA, std::vector<A>& a, std::string_view keyB,
                  std::vector<B>& b, Clamp c) {
        const In* fa = find(keyA);
        const In* fb = find(keyB);
        if (!fa) throw DecodeError("No value associated with key \"" + std::string(keyA) + "\".");
        if (!fb) throw DecodeError("No value associated with key \"" + std::string(keyB) + "\".");
        a.clear();
        b.clear();
        if (!fa->is_array() || !fb->is_array()) return;
        const std::size_t n = std::min(fa->size(), fb->size());
        for (std::size_t i = 0; i < n; ++i) {
            A x{};
            B y{};
            if (read((*fa)[i], x, unbounded) && read((*fb)[i], y, c)) {
                a.push_back(std::move(x));
                b.push_back(std::move(y));
            }
        }
    }

    // Reads one value into v; false, with v untouched, when it cannot. Throws
    // DecodeError for an unreadable record or enumeration.
    template <class T>
    static bool read(const In& j, T& v, Clamp c);

  private:
    const In* find(std::string_view key) const {
        const auto it = object_.find(std::string(key));
        return it == object_.end() ? nullptr : &*it;
    }

    template <class T>
    static void readOptional(const In* f, std::optional<T>& v, Clamp c) {
        v.reset();
        if (!f || f->is_null()) return;
        T x{};
        try {
            if (read(*f, x, c)) v = std::move(x);
        } catch (const DecodeError&) {
        }
    }

    const In& object_;
};

template <class T>
bool Reader::read(const In& j, T& v, Clamp c) {
    if constexpr (std::is_same_v<T, bool>) {
        if (!j.is_boolean()) return false;
        v = j.get<bool>();
        return true;
    } else if constexpr (std::is_same_v<T, double>) {
        if (!j.is_number()) return false;
        const double d = j.get<double>();
        if (!std::isfinite(d)) return false;
        v = std::clamp(d, c.lower, c.upper);
        return true;
    } else if constexpr (std::is_same_v<T, float>) {
        double d = 0;
        if (!read(j, d, c)) return false;
        v = static_cast<float>(std::clamp<double>(d, -FLT_MAX, FLT_MAX));
        return true;
    } else if constexpr (std::is_integral_v<T>) {
        return readInteger(j, v);
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (!j.is_string()) return false;
        v = j.get<std::string>();
        return true;
    } else if constexpr (std::is_same_v<T, Bytes>) {
        if (!j.is_string()) return false;
        auto bytes = base64Decode(j.get_ref<const std::string&>());
        if (!bytes) return false;
        v = std::move(*bytes);
        return true;
    } else if constexpr (WireEnum<T>) {
        std::optional<T> e;
        if (j.is_string()) e = EnumWire<T>::parse(j.get_ref<const std::string&>());
        if (!e) e = EnumWire<T>::fallback;
        if (!e) throw DecodeError("Cannot read an enumeration from this value.");
        v = *e;
        return true;
    } else if constexpr (IsOptional<T>::value) {
        // Only reached for entries of a list of optional values.
        readOptional(&j, v, c);
        return true;
    } else if constexpr (IsVector<T>::value) {
        if (!j.is_array()) return false;
        T list;
        list.reserve(j.size());
        for (const In& e : j) {
            typename T::value_type x{};
            try {
                if (read(e, x, c)) list.push_back(std::move(x));
            } catch (const DecodeError&) {
            }
        }
        v = std::move(list);
        return true;
    } else if constexpr (IsIntMap<T>::value) {
        if (!j.is_object()) return false;
        T map;
        for (const auto& [k, e] : j.items()) {
            const std::optional<int> key = integerKey(k);
            typename T::mapped_type x{};
            try {
                if (key && read(e, x, c)) map[*key] = std::move(x);
            } catch (const DecodeError&) {
            }
        }
        v = std::move(map);
        return true;
    } else {
        if (!j.is_object()) throw DecodeError("Expected a record, found another value.");
        T x{};
        Reader r(j);
        describe(r, x);
        v = std::move(x);
        return true;
    }
}

}  // namespace vt::remote::wire
