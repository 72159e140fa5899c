#pragma once
// Temporary files that must not outlive the converter when it is killed by
// SIGINT, SIGTERM or SIGHUP: the handler removes the files registered at
// that moment (directories, once empty) and the signal then ends the process as it would have.

#include <string>

// Installs the handler (the converter's main does, once).
void cleanup_on_signal(void);
// Makes a file from the mkostemp template *path (O_CLOEXEC) and registers
// it for removal in one of SIGNAL_CLEANUP_SLOTS slots, with the signals held
// off in between, so that no signal finds the file made and not registered.
// *fd is the file's descriptor, or -1 (errno set) when none was made.
// Returns the slot, or -1 when there is no file, no free slot or the path
// is too long.
int cleanup_make_temp(std::string *path, int *fd);
// The same for a new file at exactly `path` (O_EXCL), and for a directory
// made from the mkdtemp template *path (emptied when none was made).  A directory is removed after the
// files registered later, so register it first.
int cleanup_make_file(const std::string &path, int *fd);
int cleanup_make_temp_dir(std::string *path);
// Forgets the slot's path (on commit or ordinary removal); -1 is ignored.
void cleanup_forget(int slot);

constexpr int SIGNAL_CLEANUP_SLOTS = 4;
