// Bounds-checked reading of what a controller sent: every read is checked against the bytes
// that actually arrived, so a short or lying answer can never make the library read outside
// its buffer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tvx {

class ByteView {
public:
    constexpr ByteView() = default;
    constexpr ByteView(const uint8_t *data, size_t size) : data_(data), size_(data ? size : 0) {}

    constexpr size_t size() const { return size_; }
    constexpr const uint8_t *data() const { return data_; }
    constexpr bool has(size_t offset, size_t count = 1) const { return offset <= size_ && count <= size_ - offset; }

    // The byte at offset, or fallback when it did not arrive.
    constexpr uint8_t u8(size_t offset, uint8_t fallback = 0) const { return has(offset) ? data_[offset] : fallback; }
    // Little-endian 16-bit value, or fallback when not both bytes arrived.
    constexpr uint16_t u16(size_t offset, uint16_t fallback = 0) const
    {
        return has(offset, 2) ? static_cast<uint16_t>(data_[offset] | data_[offset + 1] << 8) : fallback;
    }
    // The bytes from offset on (empty when offset is past the end).
    constexpr ByteView from(size_t offset) const { return has(offset) ? ByteView(data_ + offset, size_ - offset) : ByteView(); }

private:
    const uint8_t *data_ = nullptr;
    size_t size_ = 0;
};

} // namespace tvx
