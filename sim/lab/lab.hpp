// ipsimd lab: a lab of simulated devices on one host (docs/lab.md).
//
//   ipsimd lab up FILE [--json]          makes the lab of the topology file and starts it
//   ipsimd lab down FILE|NAME            removes everything the lab made
//   ipsimd lab show FILE|NAME [--json]   its devices, links and their states
//   ipsimd lab link FILE|NAME DEV:IF up|down   a link's state, at run time
//
// What a lab makes is written to its state file before it is made (write-ahead), so that
// `down` removes it all even when the lab's processes were killed with SIGKILL midway: the
// namespaces "<lab>-<device>" it added (which take their links with them) and the processes
// it started (each a session of its own: its simulators and commands), each known by its
// pid and start time so that a pid used again by another process is never signalled.
//
// Where: the state directory is $IPSIMD_LAB_DIR, else /run/ipsimd-lab for root, else
// $XDG_RUNTIME_DIR/ipsimd-lab (else /tmp/ipsimd-lab-<uid>); a lab keeps <dir>/<lab>/:
// state.json, and a directory a device with its simulator's state, its log (ipsimd.log) and
// the output of its commands (run-<n>.log).
//
// Each device's simulator runs for the instance named as the device, so `ipctl -i DEVICE`
// reaches it; up refuses a lab whose lab name or device names are in use. A linux device is
// mirrored by `ipsimd --source linux --netns <lab>-<device> --writable` (writable: false in
// the file keeps it read only); a scenario device runs its scenario.
#pragma once

#include <string>
#include <vector>

namespace sim::lab {

// Runs "ipsimd lab ARGS..." (args without "lab"); the exit status: 0 done, 1 failed, 2 usage.
int lab_main(const std::vector<std::string>& args, const std::string& self);

}  // namespace sim::lab
