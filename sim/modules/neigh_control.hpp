// Control operations that change the neighbour tables while the device runs (see
// neigh_control.cpp for each operation's fields).
#pragma once

namespace sim {

struct Context;

void register_neigh_control(Context& ctx);

}  // namespace sim
