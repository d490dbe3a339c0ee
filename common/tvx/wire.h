// The byte vocabulary every layer shares (library, platform libraries, virtual controller,
// ipmi_sim module, tools): named fields, a bounds-checked view of what arrived, a reader that
// walks an answer field by field, and a writer for requests, answers and records.
//
// Rule: no layer indexes a received buffer by a literal offset or assembles a little-endian
// value by hand. A position is either a named Field (records.h, or a layout next to the
// command that defines it) or the reader's cursor.
//
// Header-only and free of the C++ runtime (no exceptions, no allocation, no containers), so
// that the library, which must not need libstdc++ at run time, can use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tvx::wire {

// A field at a fixed position of a record or answer: `T` is its value type, `Width` its size
// in bytes. Multi-byte fields are little-endian, as IPMI sends them.
template <typename T, std::size_t Width = sizeof(T)> struct Field {
    std::size_t at;
    static constexpr std::size_t width = Width;
    constexpr std::size_t end() const { return at + Width; }
};
using U8 = Field<uint8_t>;
using U16 = Field<uint16_t>;
using U24 = Field<uint32_t, 3>;
using U32 = Field<uint32_t>;

// A run of bytes at a fixed position (an ID string, a MAC address).
struct Run {
    std::size_t at;
    std::size_t size;
    constexpr std::size_t end() const { return at + size; }
};

// `count` bits of `value` from bit `low` on (bits(x, 4, 4) is the high nibble of a byte).
constexpr unsigned bits(unsigned value, unsigned low, unsigned count)
{
    return value >> low & ((1u << count) - 1u);
}

// Little-endian value of `width` bytes at `p` (the one place that assembles one).
constexpr uint32_t loadLe(const uint8_t *p, std::size_t width)
{
    uint32_t v = 0;
    for (std::size_t i = width; i-- > 0;) v = v << 8 | p[i];
    return v;
}

// The bytes that arrived, read by named fields. Every read is checked against them: a field
// that did not (wholly) arrive is absent, never zero.
class View {
public:
    constexpr View() = default;
    constexpr View(const uint8_t *data, std::size_t size) : data_(data), size_(data ? size : 0) {}
    constexpr View(std::span<const uint8_t> s) : View(s.data(), s.size()) {}

    constexpr std::size_t size() const { return size_; }
    constexpr bool empty() const { return size_ == 0; }
    constexpr const uint8_t *data() const { return data_; }
    constexpr std::span<const uint8_t> span() const { return {data_, size_}; }

    constexpr bool has(std::size_t at, std::size_t count = 1) const { return at <= size_ && count <= size_ - at; }
    template <typename T, std::size_t W> constexpr bool has(Field<T, W> f) const { return has(f.at, W); }
    constexpr bool has(Run r) const { return has(r.at, r.size); }

    // The field's value, or nothing when not all of its bytes arrived.
    template <typename T, std::size_t W> constexpr std::optional<T> get(Field<T, W> f) const
    {
        if (!has(f)) return std::nullopt;
        return static_cast<T>(loadLe(data_ + f.at, W));
    }
    // The field's value, or `fallback` when not all of its bytes arrived.
    template <typename T, std::size_t W> constexpr T get(Field<T, W> f, T fallback) const
    {
        return has(f) ? static_cast<T>(loadLe(data_ + f.at, W)) : fallback;
    }
    // The run, or an empty view when not all of it arrived.
    constexpr View get(Run r) const { return has(r) ? View(data_ + r.at, r.size) : View(); }

    // The bytes from `at` on (empty when `at` is at or past the end).
    constexpr View from(std::size_t at) const { return has(at) ? View(data_ + at, size_ - at) : View(); }
    // At most `count` bytes from `at` on: what arrived of that run.
    constexpr View upTo(std::size_t at, std::size_t count) const
    {
        View v = from(at);
        return View(v.data_, v.size_ < count ? v.size_ : count);
    }
    // The first `count` bytes at most.
    constexpr View first(std::size_t count) const { return upTo(0, count); }

private:
    const uint8_t *data_ = nullptr;
    std::size_t size_ = 0;
};

// Walks an answer field by field, in the spirit of an unpacker: reading past the end yields
// zeros and marks the walk short, so a caller reads all the fields it wants and then checks
// once that they arrived (ok) or that the answer held exactly them (done).
class Reader {
public:
    constexpr explicit Reader(View v) : v_(v) {}
    constexpr Reader(const uint8_t *data, std::size_t size) : v_(data, size) {}

    constexpr uint8_t u8() { return static_cast<uint8_t>(take(1)); }
    constexpr uint16_t u16() { return static_cast<uint16_t>(take(2)); }
    constexpr uint32_t u24() { return take(3); }
    constexpr uint32_t u32() { return take(4); }
    // The next `count` bytes, or an empty view (and a short walk) when fewer remain.
    constexpr View bytes(std::size_t count)
    {
        if (!v_.has(pos_, count)) return shortWalk(), View();
        View r(v_.data() + pos_, count);
        pos_ += count;
        return r;
    }
    // The next `count` bytes, or as many as remain (the walk is then short): what arrived of
    // a run whose length the answer itself declares.
    constexpr View upTo(std::size_t count)
    {
        View r = v_.upTo(pos_, count);
        if (r.size() < count) shortWalk();
        else pos_ += count;
        return r;
    }
    constexpr Reader &skip(std::size_t count)
    {
        bytes(count);
        return *this;
    }
    // Everything not read yet (the walk is then at its end).
    constexpr View rest()
    {
        View r = v_.from(pos_);
        pos_ = v_.size() > pos_ ? v_.size() : pos_;
        return r;
    }
    // Moves the cursor to a named position (for answers laid out with gaps).
    constexpr Reader &seek(std::size_t at)
    {
        if (at > v_.size()) shortWalk();
        pos_ = at;
        return *this;
    }

    // Every field read so far arrived.
    constexpr bool ok() const { return ok_; }
    // Every field arrived and nothing is left over: the answer was exactly as long as read.
    constexpr bool done() const { return ok_ && pos_ == v_.size(); }
    constexpr std::size_t remaining() const { return pos_ < v_.size() ? v_.size() - pos_ : 0; }
    constexpr std::size_t position() const { return pos_; }

private:
    constexpr void shortWalk()
    {
        ok_ = false;
        pos_ = v_.size();
    }
    constexpr uint32_t take(std::size_t width)
    {
        if (!v_.has(pos_, width)) return shortWalk(), 0;
        uint32_t v = loadLe(v_.data() + pos_, width);
        pos_ += width;
        return v;
    }

    View v_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

// Writes into a caller's buffer, never past its end: appended fields in order, or named
// fields at their positions. A write that does not fit is dropped and marks the writer
// overflowed.
class Writer {
public:
    constexpr Writer(uint8_t *data, std::size_t capacity) : data_(data), capacity_(data ? capacity : 0) {}
    constexpr Writer(std::span<uint8_t> s) : Writer(s.data(), s.size()) {}

    constexpr Writer &u8(uint8_t v) { return le(v, 1); }
    constexpr Writer &u16(uint16_t v) { return le(v, 2); }
    constexpr Writer &u24(uint32_t v) { return le(v, 3); }
    constexpr Writer &u32(uint32_t v) { return le(v, 4); }
    constexpr Writer &bytes(std::span<const uint8_t> b)
    {
        if (!fits(size_, b.size())) return overflow();
        for (std::size_t i = 0; i < b.size(); ++i) data_[size_ + i] = b[i];
        size_ += b.size();
        return *this;
    }
    constexpr Writer &fill(std::size_t count, uint8_t value)
    {
        if (!fits(size_, count)) return overflow();
        for (std::size_t i = 0; i < count; ++i) data_[size_ + i] = value;
        size_ += count;
        return *this;
    }
    // Stores a named field at its position (the append position moves past it if needed).
    template <typename T, std::size_t W> constexpr Writer &put(Field<T, W> f, T value)
    {
        if (!fits(f.at, W)) return overflow();
        storeLe(f.at, value, W);
        if (f.end() > size_) size_ = f.end();
        return *this;
    }
    // Stores bytes into a named run, at most its size; the rest of the run is left as it is.
    constexpr Writer &put(Run r, std::span<const uint8_t> b)
    {
        if (!fits(r.at, r.size)) return overflow();
        for (std::size_t i = 0; i < b.size() && i < r.size; ++i) data_[r.at + i] = b[i];
        if (r.end() > size_) size_ = r.end();
        return *this;
    }

    constexpr std::size_t size() const { return size_; }
    constexpr bool ok() const { return ok_; }
    constexpr std::span<const uint8_t> written() const { return {data_, size_}; }

private:
    constexpr bool fits(std::size_t at, std::size_t count) const { return at <= capacity_ && count <= capacity_ - at; }
    constexpr Writer &overflow()
    {
        ok_ = false;
        return *this;
    }
    constexpr void storeLe(std::size_t at, uint32_t v, std::size_t width)
    {
        for (std::size_t i = 0; i < width; ++i) data_[at + i] = static_cast<uint8_t>(v >> (8 * i));
    }
    constexpr Writer &le(uint32_t v, std::size_t width)
    {
        if (!fits(size_, width)) return overflow();
        storeLe(size_, v, width);
        size_ += width;
        return *this;
    }

    uint8_t *data_;
    std::size_t capacity_;
    std::size_t size_ = 0;
    bool ok_ = true;
};

// Appends little-endian values to a growable byte container (a std::vector<uint8_t> in the
// hosts, which may use one): the same encoding as Writer, for answers of any length.
template <typename Bytes> class Appender {
public:
    constexpr explicit Appender(Bytes &out) : out_(out) {}
    constexpr Appender &u8(uint8_t v) { return le(v, 1); }
    constexpr Appender &u16(uint16_t v) { return le(v, 2); }
    constexpr Appender &u24(uint32_t v) { return le(v, 3); }
    constexpr Appender &u32(uint32_t v) { return le(v, 4); }
    // Most significant byte first, for the formats outside IPMI's messages that use that order
    // (the platform event trap's data).
    constexpr Appender &be16(uint16_t v) { return be(v, 2); }
    constexpr Appender &be32(uint32_t v) { return be(v, 4); }
    constexpr Appender &bytes(std::span<const uint8_t> b)
    {
        out_.insert(out_.end(), b.begin(), b.end());
        return *this;
    }
    // Stores a named field at its position, growing the container (with zeros) to reach it:
    // for a length or checksum known only once the rest is appended.
    template <typename T, std::size_t W> constexpr Appender &put(Field<T, W> f, T value)
    {
        if (out_.size() < f.end()) out_.resize(f.end(), 0);
        for (std::size_t i = 0; i < W; ++i)
            out_[f.at + i] = static_cast<uint8_t>(static_cast<uint32_t>(value) >> (8 * i));
        return *this;
    }

private:
    constexpr Appender &le(uint32_t v, std::size_t width)
    {
        for (std::size_t i = 0; i < width; ++i) out_.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    constexpr Appender &be(uint32_t v, std::size_t width)
    {
        for (std::size_t i = width; i-- > 0;) out_.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    Bytes &out_;
};

// Hex digits of bytes, separated by `separator` (0: none), into a caller's buffer: the one
// hex formatter. Writes at most `capacity` bytes including the terminating zero; returns the
// length the whole text needs (as snprintf does).
constexpr std::size_t formatHex(std::span<const uint8_t> bytes, char *out, std::size_t capacity, char separator = ' ',
                                bool upper = false)
{
    const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::size_t n = 0;
    auto put = [&](char c) {
        if (out && n + 1 < capacity) out[n] = c;
        ++n;
    };
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i && separator) put(separator);
        put(digits[bytes[i] >> 4]);
        put(digits[bytes[i] & 0x0F]);
    }
    if (out && capacity) out[n < capacity ? n : capacity - 1] = '\0';
    return n;
}

} // namespace tvx::wire
