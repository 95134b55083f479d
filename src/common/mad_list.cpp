#include "common/mad_list.hpp"

#include <cstdio>
#include <cstring>
#include <utility>

#include "ipplat/platform.h"

namespace ipc::mad {
namespace {

constexpr char kDb[] = "eL2MAD";
constexpr char kGroup[] = "L2MAD";
constexpr std::uint32_t kOpenMode = 1;
constexpr std::size_t kName = 48;

// The list's iterator, created by the first read and freed on every path.
struct Iterator {
    void* it = nullptr;
    Iterator() noexcept = default;
    Iterator(const Iterator&) = delete;
    Iterator& operator=(const Iterator&) = delete;
    ~Iterator() {
        if (it != nullptr) DBM_FreeIterator(it);
    }
    // The next record's interface name (terminated), or false at the end or on an error.
    bool next(void* db, const char* key, std::size_t key_len, char (&name)[kName + 1]) noexcept {
        std::memset(name, 0, sizeof name);
        return DBM_GetNextSortList(db, key, static_cast<std::uint32_t>(key_len), &it, 0, 0, kName, name) >= 1;
    }
};

}  // namespace

std::uint32_t print(const char* key, std::size_t key_len, const Texts& texts, std::uint16_t detail) noexcept {
    void* db = nullptr;
    if (DBM_Open(kDb, kGroup, kOpenMode, &db) != 0) {
        std::puts(texts.disabled);
        std::fflush(stdout);
        return 0;
    }
    {
        Iterator records;
        char name[kName + 1];
        if (!records.next(db, key, key_len, name)) {
            std::puts(texts.disabled);
        } else if (detail == 0) {
            std::puts(texts.enabled);
        } else {
            std::puts(texts.enabled_interfaces);
            do {
                std::printf("  %s\r\n", name);
            } while (records.next(db, key, key_len, name));
        }
    }  // the iterator is freed before the database is closed
    std::fflush(stdout);
    return DBM_Close(db);
}

}  // namespace ipc::mad
