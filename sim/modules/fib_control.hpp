// Control operations that change the FIB while the device runs (see fib_control.cpp for
// each operation's fields). Every change moves the family's route-change sequence number.
#pragma once

namespace sim {

struct Context;

void register_fib_control(Context& ctx);

}  // namespace sim
