#include "store/store.hpp"

#include <sqlite3.h>
#include <sys/stat.h>

#include "core/log.hpp"

namespace sim {

Store::~Store() {
    if (upsert_ != nullptr) sqlite3_finalize(upsert_);
    if (db_ != nullptr) sqlite3_close(db_);
}

std::optional<std::string> Store::open(const std::string& dir) {
    ::mkdir(dir.c_str(), 0700);
    const std::string path = dir + "/ipsimd.db";
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
        std::string err = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        db_ = nullptr;
        return path + ": " + err;
    }
    const char* setup =
        "PRAGMA journal_mode=WAL;"
        "PRAGMA synchronous=NORMAL;"
        "CREATE TABLE IF NOT EXISTS objects("
        "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
        "  tbl TEXT NOT NULL, key BLOB NOT NULL, value BLOB,"
        "  UNIQUE(tbl, key));";
    char* err = nullptr;
    if (sqlite3_exec(db_, setup, nullptr, nullptr, &err) != SQLITE_OK) {
        std::string text = path + ": " + (err != nullptr ? err : "cannot prepare the database");
        sqlite3_free(err);
        return text;
    }
    // A rewritten row moves to the end, so that rows are replayed in the order of changes.
    const char* sql = "INSERT OR REPLACE INTO objects(tbl, key, value) VALUES(?1, ?2, ?3);";
    if (sqlite3_prepare_v2(db_, sql, -1, &upsert_, nullptr) != SQLITE_OK) return path + ": " + sqlite3_errmsg(db_);
    return std::nullopt;
}

void Store::write(const char* table, std::span<const std::uint8_t> key, const std::span<const std::uint8_t>* value) {
    if (db_ == nullptr) return;
    sqlite3_reset(upsert_);
    sqlite3_bind_text(upsert_, 1, table, -1, SQLITE_STATIC);
    sqlite3_bind_blob(upsert_, 2, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    if (value != nullptr) {
        sqlite3_bind_blob(upsert_, 3, value->data(), static_cast<int>(value->size()), SQLITE_TRANSIENT);
    } else {
        sqlite3_bind_null(upsert_, 3);
    }
    if (sqlite3_step(upsert_) != SQLITE_DONE) SIM_LOG(kError, "state: %s", sqlite3_errmsg(db_));
}

void Store::put(const char* table, std::span<const std::uint8_t> key, std::span<const std::uint8_t> value) {
    write(table, key, &value);
}

void Store::remove(const char* table, std::span<const std::uint8_t> key) { write(table, key, nullptr); }

bool Store::each(const char* table, const Row& fn) const {
    if (db_ == nullptr) return true;
    sqlite3_stmt* q = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT key, value FROM objects WHERE tbl = ?1 ORDER BY seq;", -1, &q, nullptr) !=
        SQLITE_OK) {
        return false;
    }
    sqlite3_bind_text(q, 1, table, -1, SQLITE_STATIC);
    bool ok = true;
    while (ok && sqlite3_step(q) == SQLITE_ROW) {
        const auto* k = static_cast<const std::uint8_t*>(sqlite3_column_blob(q, 0));
        const std::span<const std::uint8_t> key(k, static_cast<std::size_t>(sqlite3_column_bytes(q, 0)));
        if (sqlite3_column_type(q, 1) == SQLITE_NULL) {
            ok = fn(key, nullptr);
        } else {
            const auto* v = static_cast<const std::uint8_t*>(sqlite3_column_blob(q, 1));
            const std::vector<std::uint8_t> value(v, v + sqlite3_column_bytes(q, 1));
            ok = fn(key, &value);
        }
    }
    sqlite3_finalize(q);
    return ok;
}

}  // namespace sim
