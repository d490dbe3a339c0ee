// The controller's internal event log (OEM/Group command 0xF5): its sub-functions and the
// layouts of their answers, shared by the library and the virtual controller.
//
// Requests (after the IANA number and the sub-function byte, 16-bit values LSB first):
//   summary  0x82                                        -> kSummarySize summary bytes
//   read     0x84 ENTRY_ID OFFSET                        -> entry header, then a body piece
//   write    0x8A W4 W5 W6 W7 TEXT... 0x00 RECORD[16]    -> nothing
//   clear    0x87 MODE ENTRY_ID  (MODE 0x80 all, 0x00 one) -> nothing
//
// Answer positions count from the first payload byte (oem::kPayload), after the completion
// code and the IANA echo.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tvx/wire.h"

namespace tvx::iel {

inline constexpr uint8_t kCommand = 0xF5;
inline constexpr uint8_t kSummary = 0x82;
inline constexpr uint8_t kRead = 0x84;
inline constexpr uint8_t kWrite = 0x8A;
inline constexpr uint8_t kClear = 0x87;

// Clear: the mode byte.
inline constexpr uint8_t kClearAll = 0x80;
inline constexpr uint8_t kClearOne = 0x00;

// Write: the bytes before the text (IANA number, sub-function, w4-w7) and the record after it.
inline constexpr std::size_t kWriteHeaderSize = 8;
inline constexpr std::size_t kRecordSize = 16;

// Summary answer: 21 bytes, passed through as the controller sends them.
inline constexpr std::size_t kSummarySize = 21;

// Read answer: a fixed header, then at most kPieceSize bytes of the entry's body from the
// requested offset on.
namespace entry {
inline constexpr wire::U16 kEntryId{0};
inline constexpr wire::U8 kSeverity{2};
inline constexpr wire::U16 kNextId{3};
inline constexpr wire::U32 kTimestamp{5};
inline constexpr wire::U16 kBodyLength{9}; // T: the whole body, whatever the offset
inline constexpr std::size_t kBody = 11;
} // namespace entry
inline constexpr std::size_t kPieceSize = 50;

// Entry IDs that name a place rather than an entry (read only).
inline constexpr uint16_t kFirstEntry = 0x0000;
inline constexpr uint16_t kLastEntry = 0xFFFF;

} // namespace tvx::iel
