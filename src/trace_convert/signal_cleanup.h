#pragma once
// Temporary files that must not outlive the converter when it is killed by
// SIGINT, SIGTERM or SIGHUP: the handler removes the files registered at
// that moment and the signal then ends the process as it would have.

#include <string>

// Installs the handler (the converter's main does, once).
void cleanup_on_signal(void);
// Registers `path` for removal, in one of SIGNAL_CLEANUP_SLOTS slots;
// returns the slot, or -1 when none is free or the path is too long.
int cleanup_register(const std::string &path);
// Forgets the slot's path (on commit or ordinary removal); -1 is ignored.
void cleanup_forget(int slot);

constexpr int SIGNAL_CLEANUP_SLOTS = 4;
