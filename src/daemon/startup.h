#pragma once

// The daemon's start-up after the options: detaches, points standard error
// at the log, opens the control device and runs the collection loop, which
// does not return.  The parent returns 0 to main; fork failure exits 1, a
// control device that cannot be opened exits 2.
int vol_start_daemon(void);
