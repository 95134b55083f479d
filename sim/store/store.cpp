#include "store/store.hpp"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "core/log.hpp"

namespace sim {
namespace {

constexpr const char* kLockName = "/ipsimd.lock";
constexpr const char* kDbName = "/ipsimd.db";
constexpr const char* kCleanMark = "clean\n";

std::string mode_text(mode_t m) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(m & 07777));
    return buf;
}

// The state directory: made 0700 when missing; otherwise a directory of this user that
// nobody else may write into.
std::optional<std::string> check_dir(const std::string& dir) {
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return dir + ": cannot create it: " + std::strerror(errno);
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0) return dir + ": " + std::strerror(errno);
    if (S_ISLNK(st.st_mode)) return dir + ": the state directory is a symbolic link; give the directory itself";
    if (!S_ISDIR(st.st_mode)) return dir + ": not a directory";
    if (st.st_uid != ::geteuid()) {
        return dir + ": the state directory belongs to uid " + std::to_string(st.st_uid) + ", not to this user (uid " +
               std::to_string(::geteuid()) + ")";
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return dir + ": the state directory is writable by others (mode " + mode_text(st.st_mode) +
               "); make it private (chmod go-w)";
    }
    return std::nullopt;
}

// A file of the state directory that exists: a regular file of this user, never a link.
// Made 0600 when it was more open. Nothing when it is fine or missing.
std::optional<std::string> check_file(const std::string& path, bool* exists, off_t* size) {
    *exists = false;
    *size = 0;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) return std::nullopt;
        return path + ": " + std::strerror(errno);
    }
    *exists = true;
    *size = st.st_size;
    if (S_ISLNK(st.st_mode)) return path + ": is a symbolic link; the state directory's files are never followed";
    if (!S_ISREG(st.st_mode)) return path + ": not a regular file";
    if (st.st_uid != ::geteuid()) return path + ": belongs to uid " + std::to_string(st.st_uid) + ", not to this user";
    if ((st.st_mode & 077) != 0 && ::chmod(path.c_str(), 0600) != 0) return path + ": " + std::strerror(errno);
    return std::nullopt;
}

// A new file 0600; never through a link, never one that appeared meanwhile.
std::optional<std::string> create_file(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return path + ": cannot create it: " + std::strerror(errno);
    ::close(fd);
    return std::nullopt;
}

std::string read_all(int fd) {
    char buf[128] = {};
    const ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace

Store::~Store() {
    if (upsert_ != nullptr) sqlite3_finalize(upsert_);
    // Closing the last connection checkpoints the log into the database and removes it.
    if (db_ != nullptr && sqlite3_close(db_) == SQLITE_OK) mark_lock(kCleanMark);
    if (lock_fd_ >= 0) ::close(lock_fd_);
}

void Store::mark_lock(const char* text) noexcept {
    if (lock_fd_ < 0) return;
    const std::size_t n = std::strlen(text);
    if (::ftruncate(lock_fd_, 0) == 0) {
        [[maybe_unused]] const ssize_t w = ::pwrite(lock_fd_, text, n, 0);
    }
}

std::optional<std::string> Store::open(const std::string& dir) {
    if (auto err = check_dir(dir)) return err;

    // One simulator per directory.
    const std::string lock_path = dir + kLockName;
    bool had_lock = false;
    off_t lock_size = 0;
    if (auto err = check_file(lock_path, &had_lock, &lock_size)) return err;
    lock_fd_ = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (lock_fd_ < 0) return lock_path + ": " + std::strerror(errno);
    if (::flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
        std::string holder = read_all(lock_fd_);
        while (!holder.empty() && holder.back() == '\n') holder.pop_back();
        ::close(lock_fd_);
        lock_fd_ = -1;
        return dir + ": the state directory is in use by another ipsimd" + (holder.empty() ? "" : " (" + holder + ")");
    }
    const std::string last = read_all(lock_fd_);
    const bool unclean = had_lock && last != kCleanMark;

    path_ = dir + kDbName;
    bool db_exists = false, wal_exists = false, shm_exists = false;
    off_t db_size = 0, ignored = 0;
    if (auto err = check_file(path_, &db_exists, &db_size)) return err;
    if (auto err = check_file(path_ + "-wal", &wal_exists, &ignored)) return err;
    if (auto err = check_file(path_ + "-shm", &shm_exists, &ignored)) return err;
    if (had_lock && !db_exists) {
        warnings_.push_back(path_ + " is missing, though this state directory held a database: starting from the scenario alone");
    } else if (had_lock && db_size == 0 && !wal_exists) {
        warnings_.push_back(path_ + " is empty, though this state directory held a database: starting from the scenario alone");
    } else if (unclean && db_exists && !wal_exists) {
        warnings_.push_back(path_ + "-wal, the write-ahead log of a simulator that did not stop cleanly, is missing: "
                            "changes written since the last checkpoint are lost");
    }
    if (!db_exists) {
        if (auto err = create_file(path_)) return err;
    }

    if (sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr) != SQLITE_OK) {
        std::string err = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        db_ = nullptr;
        return path_ + ": " + err;
    }
    auto refuse = [this](const std::string& what) {
        std::string text = path_ + ": " + what;
        sqlite3_close(db_);
        db_ = nullptr;
        return text;
    };
    if (!exec("PRAGMA journal_mode=WAL;") || !exec("PRAGMA synchronous=NORMAL;")) {
        return refuse(std::string(sqlite3_errmsg(db_)) +
                      " (the database or its write-ahead log cannot be used; move them away to start from the scenario)");
    }
    // A damaged database is refused, never emptied: what it held may still be saved.
    sqlite3_stmt* check = nullptr;
    std::string verdict;
    if (sqlite3_prepare_v2(db_, "PRAGMA quick_check;", -1, &check, nullptr) == SQLITE_OK) {
        int rc;
        while ((rc = sqlite3_step(check)) == SQLITE_ROW) {
            const auto* t = sqlite3_column_text(check, 0);
            if (verdict.empty() && t != nullptr) verdict = reinterpret_cast<const char*>(t);
        }
        if (rc != SQLITE_DONE) verdict = sqlite3_errmsg(db_);
    } else {
        verdict = sqlite3_errmsg(db_);
    }
    sqlite3_finalize(check);
    if (verdict != "ok") {
        return refuse("the database fails its integrity check (" + verdict.substr(0, 200) +
                      "); move it away to start from the scenario, or put back a good copy");
    }
    const char* setup =
        "CREATE TABLE IF NOT EXISTS objects("
        "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
        "  tbl TEXT NOT NULL, key BLOB NOT NULL, value BLOB,"
        "  UNIQUE(tbl, key));";
    if (!exec(setup)) return refuse(sqlite3_errmsg(db_));
    // A rewritten row moves to the end, so that rows are replayed in the order of changes.
    const char* sql = "INSERT OR REPLACE INTO objects(tbl, key, value) VALUES(?1, ?2, ?3);";
    if (sqlite3_prepare_v2(db_, sql, -1, &upsert_, nullptr) != SQLITE_OK) return refuse(sqlite3_errmsg(db_));
    const std::string running = "running pid " + std::to_string(::getpid()) + "\n";
    mark_lock(running.c_str());
    return std::nullopt;
}

bool Store::exec(const char* sql) {
    char* err = nullptr;
    const int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &err);
    sqlite3_free(err);
    return rc == SQLITE_OK;
}

bool Store::write(const char* table, std::span<const std::uint8_t> key, const std::span<const std::uint8_t>* value) {
    if (db_ == nullptr) return true;
    if (broken_) {
        if (work_open_) work_failed_ = true;
        return false;
    }
    if (work_open_ && work_failed_) return false;
    // The work's transaction starts with its first write: requests that only read cost
    // nothing here.
    if (work_open_ && !work_wrote_) {
        if (!exec("BEGIN;")) {
            SIM_LOG(kError, "state: %s: %s", path_.c_str(), sqlite3_errmsg(db_));
            work_failed_ = true;
            return false;
        }
        work_wrote_ = true;
    }
    sqlite3_reset(upsert_);
    sqlite3_bind_text(upsert_, 1, table, -1, SQLITE_STATIC);
    sqlite3_bind_blob(upsert_, 2, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    if (value != nullptr) {
        sqlite3_bind_blob(upsert_, 3, value->data(), static_cast<int>(value->size()), SQLITE_TRANSIENT);
    } else {
        sqlite3_bind_null(upsert_, 3);
    }
    const int rc = sqlite3_step(upsert_);
    sqlite3_reset(upsert_);
    if (rc != SQLITE_DONE) {
        SIM_LOG(kError, "state: %s: %s", path_.c_str(), sqlite3_errmsg(db_));
        if (work_open_) work_failed_ = true;
        return false;
    }
    if (!work_open_) SIM_LOG(kDebug, "state: a %s row written outside a request", table);
    return true;
}

bool Store::put(const char* table, std::span<const std::uint8_t> key, std::span<const std::uint8_t> value) {
    return write(table, key, &value);
}

bool Store::remove(const char* table, std::span<const std::uint8_t> key) { return write(table, key, nullptr); }

bool Store::each(const char* table, const Row& fn) const {
    if (db_ == nullptr) return true;
    sqlite3_stmt* q = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT key, value FROM objects WHERE tbl = ?1 ORDER BY seq;", -1, &q, nullptr) !=
        SQLITE_OK) {
        return false;
    }
    sqlite3_bind_text(q, 1, table, -1, SQLITE_STATIC);
    bool ok = true;
    int rc;
    while (ok && (rc = sqlite3_step(q)) == SQLITE_ROW) {
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
    // A table that cannot be read to its end is not a table that was read.
    if (ok && rc != SQLITE_DONE) ok = false;
    sqlite3_finalize(q);
    return ok;
}

// ---- units of work ----

Store::Work::Work(Store& store) : store_(store) {
    if (store_.db_ == nullptr || store_.work_open_) return;
    owner_ = true;
    store_.work_open_ = true;
    store_.work_failed_ = false;
    store_.work_wrote_ = false;
}

Store::Work::~Work() {
    if (owner_ && !done_) {
        store_.rollback();
        store_.finish_work(false);
    }
}

bool Store::Work::commit() {
    if (!owner_) return !(store_.work_open_ && store_.work_failed_);
    if (done_) return committed_;
    done_ = true;
    bool ok = !store_.work_failed_;
    if (ok && store_.work_wrote_ && !store_.exec("COMMIT;")) {
        SIM_LOG(kError, "state: %s: %s", store_.path_.c_str(), sqlite3_errmsg(store_.db_));
        ok = false;
    }
    if (!ok) store_.rollback();
    committed_ = ok;
    store_.finish_work(ok);
    if (!ok) SIM_LOG(kWarn, "state: a change was refused because it could not be stored");
    return ok;
}

void Store::rollback() {
    if (db_ != nullptr && sqlite3_get_autocommit(db_) == 0 && !exec("ROLLBACK;")) {
        // A transaction that cannot be ended would take in every later write: the store
        // takes none from now on.
        SIM_LOG(kError, "state: %s: rollback: %s; no change is stored any more (restart the simulator)", path_.c_str(),
                sqlite3_errmsg(db_));
        broken_ = true;
    }
}

void Store::finish_work(bool committed) {
    work_open_ = false;
    work_failed_ = false;
    work_wrote_ = false;
    std::vector<std::function<void()>> done;
    std::vector<std::function<void()>> undo;
    done.swap(committed_);
    undo.swap(undo_);
    if (committed) {
        for (auto& fn : done) fn();
    } else {
        for (auto it = undo.rbegin(); it != undo.rend(); ++it) (*it)();
    }
}

void Store::after_commit(std::function<void()> fn) {
    if (work_open_) {
        committed_.push_back(std::move(fn));
    } else {
        fn();
    }
}

void Store::on_rollback(std::function<void()> fn) {
    if (work_open_) undo_.push_back(std::move(fn));
}

}  // namespace sim
