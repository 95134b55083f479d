// Interface types that may carry addresses, and the configured addresses kept in the
// configuration database.
#include <cstdint>
#include <cstring>

#include "ipclient/ipcfg.h"
#include "ipplat/platform.h"

namespace {

constexpr std::uint32_t kKeyLen = 52;
constexpr std::size_t kNameField = 48;
constexpr std::uint32_t kRecordLen = 20;

// The database key: the key value (host order), then the name cut to 47 characters in a
// zero-padded 48-byte field.
void build_key(std::uint8_t (&key)[kKeyLen], std::uint32_t value, const char* name) noexcept {
    std::memset(key, 0, sizeof key);
    std::memcpy(key, &value, sizeof value);
    std::strncpy(reinterpret_cast<char*>(key) + 4, name, kNameField - 1);
}

std::uint32_t select_types(const std::uint32_t* types, std::uint32_t count, IF_SELECT_S* sel) noexcept {
    std::uint32_t result = 0;
    for (std::uint32_t i = 0; i < count; ++i) result |= IF_SelectType_Set(types[i], sel);
    return result;
}

}  // namespace

extern "C" {

uint32_t g_auiIPAddrCliIfType[IPCFG_CLI_IFTYPE_COUNT] = {
    22, 35, 42, 10, 6,  23, 4,  31, 16,  39,  5,   71,  24,  27,  29,  1,   26,  28,  41,  25,  7, 55,
    2,  47, 3,  67, 70, 84, 89, 96, 97,  86,  105, 108, 110, 111, 114, 51,  122, 124, 144, 168, 176};

uint32_t g_auiIPAddrShowIfType[IPCFG_SHOW_IFTYPE_COUNT] = {
    22, 35, 42, 10, 6,  23, 4,  31, 16, 39, 5,  71,  24,  27,  29,  1,   26,  28,  41,  25,  7,   55,  2,
    47, 3,  67, 70, 84, 89, 96, 97, 11, 40, 86, 105, 108, 110, 111, 114, 120, 51,  122, 124, 144, 168, 176};

uint32_t* IPCFG_GetIfType(uint32_t* puiCount) {
    if (puiCount != nullptr) *puiCount = IPCFG_CLI_IFTYPE_COUNT;
    return g_auiIPAddrCliIfType;
}

uint32_t* IPCFG_GetShowIfType(uint32_t* puiCount) {
    if (puiCount != nullptr) *puiCount = IPCFG_SHOW_IFTYPE_COUNT;
    return g_auiIPAddrShowIfType;
}

uint32_t IPCFG_SetIFType(struct IF_SELECT_S* pstSelector) {
    std::uint32_t count = 0;
    const std::uint32_t* types = IPCFG_GetIfType(&count);
    return select_types(types, count, pstSelector);
}

uint32_t IPCFG_SetShowIFType(struct IF_SELECT_S* pstSelector) {
    std::uint32_t count = 0;
    const std::uint32_t* types = IPCFG_GetShowIfType(&count);
    return select_types(types, count, pstSelector);
}

uint32_t IPCfg_Mor_GetAddrNum(void* pDb, uint32_t uiKey, const char* pcName) {
    if (pcName == nullptr) return 0;
    std::uint8_t key[kKeyLen];
    build_key(key, uiKey, pcName);
    const std::int32_t n = DBM_Len(pDb, key, kKeyLen);
    return n < 0 ? 0 : static_cast<std::uint32_t>(n);
}

uint32_t IPCfg_Mor_GetAddr(void* pDb, uint32_t uiKey, const char* pcName, uint64_t* pulCount,
                           IPCFG_DB_ADDR_S* pstEntries) {
    if (pcName == nullptr || pulCount == nullptr || pstEntries == nullptr) return IPSTATUS_FAILED;
    std::uint8_t key[kKeyLen];
    build_key(key, uiKey, pcName);
    void* iterator = nullptr;
    std::uint64_t copied = 0;
    for (;;) {
        std::uint8_t record[kRecordLen] = {};
        if (DBM_GetNextSortList(pDb, key, kKeyLen, &iterator, 0, 0, kRecordLen, record) < 1) break;
        IPCFG_DB_ADDR_S& e = pstEntries[copied];
        std::memcpy(&e.usValue, record, sizeof e.usValue);
        std::memcpy(e.auiValue, record + 4, sizeof e.auiValue);
        // The limit is tested after the copy: a count of 0 does not stop the walk.
        if (++copied == *pulCount) break;
    }
    DBM_FreeIterator(iterator);
    if (copied == 0) return IPSTATUS_FAILED;
    *pulCount = copied;
    return IPSTATUS_OK;
}

}  // extern "C"
