// Signed 32-bit arithmetic that wraps, as the library's work figures and byte offsets are defined.
// The arithmetic runs in uint32_t, where wrapping is defined, and converts back to int32_t.
#pragma once
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace omk {

// A 32-bit integer whose + and * wrap; a work formula reads as written:
// Wrap32(width) * height * (Wrap32(2) * count + 1).
class Wrap32 {
public:
    constexpr Wrap32(int32_t v) : v_(static_cast<uint32_t>(v)) {}
    constexpr int32_t value() const { return static_cast<int32_t>(v_); }
    friend constexpr Wrap32 operator+(Wrap32 a, Wrap32 b) { return fromBits(a.v_ + b.v_); }
    friend constexpr Wrap32 operator*(Wrap32 a, Wrap32 b) { return fromBits(a.v_ * b.v_); }

private:
    static constexpr Wrap32 fromBits(uint32_t bits) { Wrap32 w(0); w.v_ = bits; return w; }
    uint32_t v_;
};

// Byte offset k * stride formed as a signed 32-bit product, widened for the pointer addition.
constexpr ptrdiff_t offset32(int32_t k, int32_t stride) { return (Wrap32(k) * stride).value(); }

// Pointer moved by a byte count, keeping its element type and constness.
template <class T>
inline T* addBytes(T* p, ptrdiff_t bytes) {
    using Byte = std::conditional_t<std::is_const_v<T>, const char, char>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(p) + bytes);
}

}  // namespace omk
