// The configuration database: lists of records named by a key within (database, group).
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "device.hpp"
#include "internal.hpp"
#include "ipclient/status.h"
#include "leaf_mutex.hpp"

namespace ipp {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Group = std::pair<std::string, std::string>;

// Orders keys as memcmp does, shorter first on a common prefix. (The standard ordering of
// vectors says the same; spelt out, it keeps GCC 12's -O3 bound analysis quiet.)
struct KeyLess {
    bool operator()(const Bytes& a, const Bytes& b) const noexcept {
        const std::size_t n = a.size() < b.size() ? a.size() : b.size();
        const int c = n != 0 ? std::memcmp(a.data(), b.data(), n) : 0;
        return c != 0 ? c < 0 : a.size() < b.size();
    }
};

struct Handle {
    Group group;
};

struct Iterator {
    Bytes key;
    std::size_t next = 0;
};

struct Database {
    LeafMutex mu;
    std::map<Group, std::map<Bytes, std::vector<Bytes>, KeyLess>> lists;
    std::map<Group, std::uint32_t> open_failures;
    std::set<Handle*> handles;
    std::set<Iterator*> iterators;
};

Database& db() {
    static Database d;
    return d;
}

Bytes bytes_of(const void* p, std::uint32_t n) {
    const auto* b = static_cast<const std::uint8_t*>(p);
    return b != nullptr ? Bytes(b, b + n) : Bytes{};
}

const std::vector<Bytes>* list_of(Handle* h, const Bytes& key) {
    const auto g = db().lists.find(h->group);
    if (g == db().lists.end()) return nullptr;
    const auto l = g->second.find(key);
    return l == g->second.end() ? nullptr : &l->second;
}

}  // namespace

void reset_dbm() noexcept {
    Database& d = db();
    const std::lock_guard lock(d.mu);
    d.lists.clear();
    d.open_failures.clear();
    for (Handle* h : d.handles) delete h;
    for (Iterator* i : d.iterators) delete i;
    d.handles.clear();
    d.iterators.clear();
}

}  // namespace ipp

using ipp::db;

extern "C" {

uint32_t DBM_Open(const char* name, const char* group, uint32_t mode, void** handle) {
    if (name == nullptr || group == nullptr || handle == nullptr) return IPSTATUS_FAILED;
    if (ipp::dev::active()) return ipp::dev::dbm_open(name, group, mode, handle);
    const std::lock_guard lock(db().mu);
    const ipp::Group g{name, group};
    const auto fail = db().open_failures.find(g);
    if (fail != db().open_failures.end()) return fail->second;
    auto* h = new ipp::Handle{g};
    db().handles.insert(h);
    *handle = h;
    return 0;
}

int32_t DBM_GetNextSortList(void* handle, const void* key, uint32_t key_len, void** iterator, uint32_t a5,
                            uint32_t a6, uint32_t data_len, void* data) {
    (void)a5;
    (void)a6;
    if (ipp::dev::active()) return ipp::dev::dbm_next(handle, key, key_len, iterator, data_len, data);
    const std::lock_guard lock(db().mu);
    auto* h = static_cast<ipp::Handle*>(handle);
    if (iterator == nullptr || db().handles.count(h) == 0) return -1;
    auto* it = static_cast<ipp::Iterator*>(*iterator);
    if (it == nullptr) {
        it = new ipp::Iterator{ipp::bytes_of(key, key_len), 0};
        db().iterators.insert(it);
        *iterator = it;
    } else if (db().iterators.count(it) == 0) {
        return -1;
    }
    const auto* list = ipp::list_of(h, it->key);
    if (list == nullptr || it->next >= list->size()) return 0;
    const ipp::Bytes& rec = (*list)[it->next++];
    if (data != nullptr) std::memcpy(data, rec.data(), std::min<std::size_t>(data_len, rec.size()));
    return 1;
}

void DBM_FreeIterator(void* iterator) {
    if (ipp::dev::active()) return ipp::dev::dbm_free_iterator(iterator);
    const std::lock_guard lock(db().mu);
    auto* it = static_cast<ipp::Iterator*>(iterator);
    if (db().iterators.erase(it) != 0) delete it;
}

uint32_t DBM_Close(void* handle) {
    if (ipp::dev::active()) return ipp::dev::dbm_close(handle);
    const std::lock_guard lock(db().mu);
    auto* h = static_cast<ipp::Handle*>(handle);
    if (db().handles.erase(h) == 0) return IPSTATUS_FAILED;
    delete h;
    return 0;
}

int32_t DBM_Len(void* handle, const void* key, uint32_t key_len) {
    if (ipp::dev::active()) return ipp::dev::dbm_len(handle, key, key_len);
    const std::lock_guard lock(db().mu);
    auto* h = static_cast<ipp::Handle*>(handle);
    if (db().handles.count(h) == 0) return -1;
    const auto* list = ipp::list_of(h, ipp::bytes_of(key, key_len));
    return list == nullptr ? 0 : static_cast<int32_t>(list->size());
}

void ipp_dbm_add_record(const char* name, const char* group, const void* key, uint32_t key_len, const void* record,
                        uint32_t record_len) {
    if (name == nullptr || group == nullptr) return;
    const std::lock_guard lock(db().mu);
    db().lists[{name, group}][ipp::bytes_of(key, key_len)].push_back(ipp::bytes_of(record, record_len));
}

void ipp_dbm_fail_open(const char* name, const char* group, uint32_t status) {
    if (name == nullptr || group == nullptr) return;
    const std::lock_guard lock(db().mu);
    if (status == 0) {
        db().open_failures.erase({name, group});
    } else {
        db().open_failures[{name, group}] = status;
    }
}

uint32_t ipp_dbm_open_handles(void) {
    const std::lock_guard lock(db().mu);
    return static_cast<uint32_t>(db().handles.size());
}

uint32_t ipp_dbm_open_iterators(void) {
    const std::lock_guard lock(db().mu);
    return static_cast<uint32_t>(db().iterators.size());
}

}  // extern "C"
