// The SDR cache: the whole repository read once into fixed-size slots, the lookups over it,
// and the library's linked list.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/diag.h"
#include "common/list_tail.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/records.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
namespace sdr = tvx::sdr;

namespace {

constexpr uint32_t kFullRecordCopy = sdr::full::kMaxSize;
constexpr uint32_t kCompactRecordCopy = sdr::compact::kMaxSize;

bool usable(const SDRInfo *info) { return info && info->records && info->count != 0 && info->recordSize != 0; }

const uint8_t *slot(const SDRInfo *info, uint32_t index)
{
    return info->records + static_cast<size_t>(info->recordSize) * index;
}

// A slot's bytes: the record read field by field, never past the slot.
tvx::wire::View slotView(const SDRInfo *info, uint32_t index) { return {slot(info, index), info->recordSize}; }

// Whether a slot holds a sensor record of this type and sensor type.
bool isSensor(tvx::wire::View r, uint8_t recordType, uint8_t sensorType)
{
    return r.get(sdr::kRecordType) == recordType && r.get(sdr::kSensorType) == sensorType;
}

} // namespace

extern "C" TVX_API int getSDRInfo(IpmiSession *session, SDRInfo *info)
{
    if (!session || !info) return 0;
    SdrRepositoryAllocInfo alloc;
    std::memset(&alloc, 0, sizeof alloc);
    if (IPMICMD_GetSDRRepositoryAllocInfo(session, &alloc, tvx::kPlatformTimeout) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "failed to read sdr");
        return 0;
    }
    SdrRepositoryInfo repo;
    std::memset(&repo, 0, sizeof repo);
    if (IPMICMD_GetSDRRepositoryInfo(session, &repo, tvx::kPlatformTimeout) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "failed to read sdr");
        return 0;
    }
    info->recordSize = static_cast<uint32_t>(alloc.allocUnitSize) * alloc.maxRecordSize;
    info->count = repo.recordCount;
    info->records = nullptr;
    uint64_t total = static_cast<uint64_t>(info->recordSize) * info->count;
    // An empty repository is an empty cache: nothing to allocate or read.
    if (total == 0) return 1;
    // The platform takes the buffer size as 32 bits; a larger repository cannot be read.
    uint8_t *buffer = total <= UINT32_MAX ? static_cast<uint8_t *>(std::malloc(static_cast<size_t>(total))) : nullptr;
    if (!buffer) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return 0;
    }
    info->records = buffer;
    if (LIBIPMI_HL_GetAllSDRs(session, buffer, static_cast<uint32_t>(total), tvx::kPlatformTimeout) != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        std::free(buffer);
        info->records = nullptr;
        return 0;
    }
    return 1;
}

extern "C" TVX_API void freeSDRInfo(SDRInfo *info)
{
    if (!info) return;
    info->recordSize = 0;
    if (info->records) {
        std::free(info->records);
        info->records = nullptr;
    }
    info->count = 0;
}

extern "C" TVX_API uint8_t *getSdrByIndex(uint32_t index, SDRInfo *info)
{
    if (!usable(info)) return nullptr;
    // Callers walk 0 to count - 1; an index past the end would point outside the cache.
    if (index >= info->count) return nullptr;
    return const_cast<uint8_t *>(slot(info, index));
}

extern "C" TVX_API uint8_t *findCompactSdrByEntity(uint8_t entityId, uint8_t entityInstance, uint8_t sensorType,
                                                   SDRInfo *info)
{
    if (!usable(info)) return nullptr;
    for (uint32_t i = 0; i < info->count; ++i) {
        tvx::wire::View r = slotView(info, i);
        if (isSensor(r, sdr::kCompactSensor, sensorType) && r.get(sdr::kEntityId) == entityId &&
            r.get(sdr::kEntityInstance) == entityInstance)
            return const_cast<uint8_t *>(r.data());
    }
    return nullptr;
}

extern "C" TVX_API uint32_t ipmiFindSensorByType(ListNode **list, uint8_t recordType, uint8_t sensorType,
                                                 SDRInfo *info)
{
    uint32_t appended = 0;
    if (!usable(info)) return 0;
    uint32_t copy;
    if (recordType == sdr::kFullSensor) copy = kFullRecordCopy;
    else if (recordType == sdr::kCompactSensor) copy = kCompactRecordCopy;
    else return 0;
    const uint64_t cacheSize = static_cast<uint64_t>(info->recordSize) * info->count;
    tvx::ListTail tail(list);
    for (uint32_t i = 0; i < info->count; ++i) {
        const uint8_t *r = slot(info, i);
        if (!isSensor(slotView(info, i), recordType, sensorType)) continue;
        // A slot smaller than the record copy: take what remains of the cache, never more,
        // so the last slot's copy stays inside the buffer.
        uint64_t remaining = cacheSize - static_cast<uint64_t>(info->recordSize) * i;
        uint32_t n = remaining < copy ? static_cast<uint32_t>(remaining) : copy;
        if (!tail.add(r, n)) break;
        ++appended;
    }
    return appended;
}

extern "C" TVX_API int addToList(ListNode **list, const void *element, uint32_t size)
{
    if (!list || !element || size == 0) return 0;
    ListNode *node = static_cast<ListNode *>(std::calloc(1, sizeof(ListNode)));
    if (!node) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return 0;
    }
    node->data = static_cast<uint8_t *>(std::calloc(1, static_cast<size_t>(size) + 1));
    if (!node->data) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        std::free(node);
        return 0;
    }
    if (!*list) {
        *list = node;
    } else {
        ListNode *tail = *list;
        while (tail->next) tail = tail->next;
        tail->next = node;
    }
    std::memcpy(node->data, element, size);
    return 1;
}

extern "C" TVX_API void freeList(ListNode **list)
{
    if (!list) return;
    ListNode *node = *list;
    while (node) {
        ListNode *next = node->next;
        std::free(node->data);
        std::free(node);
        node = next;
    }
    *list = nullptr;
}
