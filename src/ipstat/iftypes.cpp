// Interface types counted for statistics, supporting BPA, and carrying load-sharing paths.
#include <array>
#include <cstdint>

#include "ipclient/ipstat.h"
#include "ipplat/platform.h"

namespace {

constexpr std::array<std::uint32_t, 19> kStatTypes{67, 19, 21, 68, 69, 88, 123, 143, 167, 23,
                                                    25, 70, 71, 89, 124, 144, 168, 41, 39};
constexpr std::array<std::uint32_t, 34> kBpaTypes{39, 22, 35, 105, 27, 7,  2,  1,   6,   10,  42,  29,
                                                   31, 23, 5,  41,  25, 26, 28, 47,  55,  67,  70,  86,
                                                   71, 89, 97, 11,  40, 122, 124, 144, 168, 176};
constexpr std::array<std::uint32_t, 18> kLoadSharingTypes{19,  21,  68,  69,  23,  25,  70,  71,  121,
                                                           122, 123, 124, 143, 167, 144, 168, 175, 176};

constexpr std::uint32_t kSelectMode = 5;
constexpr std::uint32_t kSelectCondition = 8;

template <std::size_t N>
std::uint32_t add_last(const std::array<std::uint32_t, N>& types, IF_SELECT_S* sel) noexcept {
    std::uint32_t result = 0;
    for (const std::uint32_t t : types) result = IF_SelectType_Set(t, sel);
    return result;
}

template <std::size_t N>
std::uint32_t add_all(const std::array<std::uint32_t, N>& types, IF_SELECT_S* sel) noexcept {
    std::uint32_t result = 0;
    for (const std::uint32_t t : types) result |= IF_SelectType_Set(t, sel);
    return result;
}

}  // namespace

extern "C" {

uint32_t IP_StatSetSelectIfType(struct IF_SELECT_S* pstSelection) { return add_last(kStatTypes, pstSelection); }

uint32_t IP_StatIfIndexValidCheck(uint32_t uiIfIndex) {
    if (IF_IsValidIfIndex(uiIfIndex) != 1 || IF_IsTempIf(uiIfIndex) == 1 || IF_IsVisible(uiIfIndex) != 1 ||
        IF_IsConfigure(uiIfIndex) != 1) {
        return 0;
    }
    IF_SELECT_S sel{};
    (void)IF_Select_Init(kSelectMode, &sel);
    std::uint32_t type = 0;
    if (IF_GetDataByIfIndex(uiIfIndex, IF_DATA_TYPE, &type) != 0) return 0;
    (void)add_last(kStatTypes, &sel);
    if (IF_SelectCondition_Set(kSelectCondition, &sel) != 0) return 0;
    return IF_SelectType_Check(type, &sel) & 0xFFFFu;
}

uint32_t IP_IsBpaSupportedIf(uint32_t uiIfIndex) {
    if (IF_IsValidIfIndex(uiIfIndex) != 1 || IF_IsTempIf(uiIfIndex) == 1) return 0;
    std::uint32_t type = 0;
    if (IF_GetDataByIfIndex(uiIfIndex, IF_DATA_TYPE, &type) != 0) return 0;
    for (const std::uint32_t t : kBpaTypes) {
        if (t == type) return 1;
    }
    return 0;
}

uint32_t IP_SetBpaIfType(struct IF_SELECT_S* pstSelection) {
    (void)IF_Select_Init(kSelectMode, pstSelection);
    return add_all(kBpaTypes, pstSelection);
}

uint32_t IP_loadsharing_path_SelectIfType(struct IF_SELECT_S* pstSelection) {
    return add_last(kLoadSharingTypes, pstSelection);
}

}  // extern "C"
