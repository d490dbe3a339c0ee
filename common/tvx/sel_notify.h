// The SEL notification queues: the System V message queues through which watchers register
// with the notification service and receive one message per event. Shared by the library
// (the watcher's side) and tvx-selnotifyd (the service).
//
// Both keys come from ftok("/tmp", ...). A watcher sends SelNotifyRequest messages of type
// = its watcher ID (> 0) on the register queue, and receives SelNotifyEvent messages of type
// = its watcher ID from the notify queue. Values in the messages are in host byte order.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tvx::selnotify {

inline constexpr const char *kKeyPath = "/tmp";
inline constexpr int kRegisterProject = 'r';
inline constexpr int kNotifyProject = 'n';

inline constexpr int32_t kRegister = 0;
inline constexpr int32_t kUnregister = 1;

struct SelNotifyRequest {
    long type; // the watcher ID
    int32_t operation;
    uint8_t unused[4]; // part of the body; carries no value
};
inline constexpr std::size_t kRequestBody = 8;
static_assert(offsetof(SelNotifyRequest, unused) + 4 - offsetof(SelNotifyRequest, operation) == kRequestBody);

struct SelNotifyEvent {
    long type; // the watcher ID it is meant for
    uint8_t code;
    uint8_t unused;
    uint16_t value16;
    uint32_t value32;
    uint8_t reserved[4];
};
inline constexpr std::size_t kEventBody = 12;
static_assert(offsetof(SelNotifyEvent, code) == sizeof(long));
static_assert(offsetof(SelNotifyEvent, value16) - offsetof(SelNotifyEvent, code) == 2);
static_assert(offsetof(SelNotifyEvent, value32) - offsetof(SelNotifyEvent, code) == 4);
static_assert(offsetof(SelNotifyEvent, reserved) + 4 - offsetof(SelNotifyEvent, code) == kEventBody);

// Event codes the service sends (the library hands them over unchanged).
inline constexpr uint8_t kEntryAdded = 0x01; // value16: record ID; value32: its timestamp
inline constexpr uint8_t kLogCleared = 0x02; // value16: 0; value32: the erase timestamp

} // namespace tvx::selnotify
