// Persistence of what clients changed, in SQLite (WAL) under the state directory.
//
// One row per object: (table, key, value). A row whose value is null records that the
// object was removed (an address of the scenario that a client deleted). On start the
// scenario is applied first, then every stored row in the order written.
//
// A change is acknowledged only once it is durable. The writes of one request form a unit
// of work (Store::Work): they are committed together before the answer is sent, and events
// that announce them are sent only after the commit. When a write or the commit fails (a
// full file system, an I/O error, a damaged database), the work is rolled back: the rows
// stay as they were, the state in memory is put back by the undo steps the work collected,
// no event leaves, and the request is answered with kStoreFailed. With WAL and
// synchronous=NORMAL a committed row survives the end of the process (kill -9).
//
// The state directory belongs to one simulator at a time and to its user:
//  - it must be a directory (not a symbolic link) owned by the simulator's user and not
//    writable by group or others; it is created 0700 when missing;
//  - "ipsimd.lock" (0600) is held with flock while the simulator runs: a second simulator
//    on the same directory is refused. It also records whether the last simulator stopped
//    cleanly ("clean") or not ("running pid N"), which tells a deleted write-ahead log apart
//    from a clean stop;
//  - "ipsimd.db" (with its "-wal" and "-shm" files) is created 0600, never through a
//    symbolic link, and must pass SQLite's quick check at start, or the start is refused
//    with the file named: a damaged database is never emptied silently;
//  - a database that is missing or empty in a directory that held one before, and a
//    write-ahead log missing after an unclean stop, are reported as warnings (warnings()).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ipproto/device_status.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace sim {

// The status a request gets when the change it asked for could not be stored.
inline constexpr std::uint32_t kStoreFailed = ipc::device_status::kStoreFailed;
inline constexpr std::uint32_t kNoResources = ipc::device_status::kNoResources;

class Store {
public:
    Store() = default;
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Opens or creates DIR/ipsimd.db under the rules above; an error text when it cannot.
    std::optional<std::string> open(const std::string& dir);
    bool is_open() const noexcept { return db_ != nullptr; }
    // What open() found worth a warning.
    const std::vector<std::string>& warnings() const noexcept { return warnings_; }

    // Writes one row: inside a unit of work it waits for the work's commit; outside one it
    // is committed at once. False when it could not be written (logged; the work fails).
    bool put(const char* table, std::span<const std::uint8_t> key, std::span<const std::uint8_t> value);
    bool remove(const char* table, std::span<const std::uint8_t> key);

    using Row = std::function<bool(std::span<const std::uint8_t> key, const std::vector<std::uint8_t>* value)>;
    // Calls fn for each row of a table in the order written; stops and returns false when
    // fn refuses a row or the table cannot be read.
    bool each(const char* table, const Row& fn) const;

    // The writes of one request. Opened on the stack around the handling of a request that
    // may change stored state. Without a commit (an error answered, an exception) the work
    // is rolled back when it ends. A work opened inside another one joins it: its commit()
    // only tells whether the outer work has failed so far, and the outer work decides.
    class Work {
    public:
        explicit Work(Store& store);
        ~Work();
        Work(const Work&) = delete;
        Work& operator=(const Work&) = delete;
        // True when every write of the work is durable (or there was none): the events it
        // held are sent. False: everything was rolled back and undone. A second call gives
        // the first one's answer.
        bool commit();

    private:
        Store& store_;
        bool owner_ = false;
        bool done_ = false;
        bool committed_ = false;
    };
    bool in_work() const noexcept { return work_open_; }
    // While a work is open: fn runs once the work commits (an event that announces a
    // change); without a work it runs at once.
    void after_commit(std::function<void()> fn);
    // While a work is open: fn runs when the work is rolled back (putting memory back as
    // the store has it); without a work it is dropped.
    void on_rollback(std::function<void()> fn);

private:
    bool write(const char* table, std::span<const std::uint8_t> key, const std::span<const std::uint8_t>* value);
    bool exec(const char* sql);
    void rollback();
    void finish_work(bool committed);
    void mark_lock(const char* text) noexcept;

    std::string path_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt* upsert_ = nullptr;
    int lock_fd_ = -1;
    std::vector<std::string> warnings_;
    bool broken_ = false;  // a rollback failed: nothing is stored any more
    bool work_open_ = false;
    bool work_failed_ = false;
    bool work_wrote_ = false;
    std::vector<std::function<void()>> committed_;
    std::vector<std::function<void()>> undo_;
};

}  // namespace sim
