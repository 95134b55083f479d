// The MAD configuration kept in the configuration database, printed for a display.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ipc::mad {

// The three lines a display prints, each put with its newline.
struct Texts {
    const char* disabled;
    const char* enabled;
    const char* enabled_interfaces;
};

// Walks the list named by key (key_len bytes, terminator included) of database "eL2MAD",
// group "L2MAD": no database or no record prints the disabled line; a record with detail 0
// the enabled line; otherwise the interface line and "  %s\r\n" for every record's name.
// The iterator is freed before the database is closed. Returns the closing status, or 0
// when the database could not be opened.
std::uint32_t print(const char* key, std::size_t key_len, const Texts& texts, std::uint16_t detail) noexcept;

}  // namespace ipc::mad
