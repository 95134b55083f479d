// Persistence of what clients changed, in SQLite (WAL) under the state directory.
//
// One row per object: (table, key, value). A row whose value is null records that the
// object was removed (an address of the scenario that a client deleted). A change is
// written before the client's answer is sent; with WAL and synchronous=NORMAL a committed
// row survives the end of the process (kill -9), so an acknowledged change is never lost.
// On start the scenario is applied first, then every stored row in the order written.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace sim {

class Store {
public:
    Store() = default;
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Opens or creates DIR/ipsimd.db; an error text when it cannot.
    std::optional<std::string> open(const std::string& dir);
    bool is_open() const noexcept { return db_ != nullptr; }

    void put(const char* table, std::span<const std::uint8_t> key, std::span<const std::uint8_t> value);
    void remove(const char* table, std::span<const std::uint8_t> key);

    using Row = std::function<bool(std::span<const std::uint8_t> key, const std::vector<std::uint8_t>* value)>;
    // Calls fn for each row of a table in the order written; stops and returns false when
    // fn refuses a row.
    bool each(const char* table, const Row& fn) const;

private:
    void write(const char* table, std::span<const std::uint8_t> key, const std::span<const std::uint8_t>* value);

    sqlite3* db_ = nullptr;
    sqlite3_stmt* upsert_ = nullptr;
};

}  // namespace sim
